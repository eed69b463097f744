// The page the web view serves: its HTML with the style and script built in, made from the
// files in web/page at build time.
#pragma once

#include <string_view>

namespace lumora::web {

std::string_view pageHtml();

}  // namespace lumora::web
