#include "Routes.h"

#include <algorithm>
#include <array>

#include "Token.h"

namespace lumora::web {

namespace {

struct RouteEntry {
    std::string_view path;
    Route route;
};
constexpr std::array<RouteEntry, 2> kRoutes = {{{"/", Route::Page}, {"/ws", Route::Socket}}};

bool printable(std::string_view text) {
    return std::all_of(text.begin(), text.end(), [](char c) { return c > 0x20 && c < 0x7f; });
}

}  // namespace

std::optional<Target> parseTarget(std::string_view target) {
    if (target.empty() || target.size() > kMaxTargetLength || target.front() != '/' || !printable(target))
        return std::nullopt;
    Target parsed;
    const std::size_t mark = target.find('?');
    parsed.path = std::string(target.substr(0, mark));
    if (mark == std::string_view::npos) return parsed;
    std::string_view query = target.substr(mark + 1);
    bool sawToken = false;
    while (!query.empty()) {
        const std::size_t end = query.find('&');
        const std::string_view field = query.substr(0, end);
        query = end == std::string_view::npos ? std::string_view() : query.substr(end + 1);
        const std::size_t equals = field.find('=');
        const std::string_view name = field.substr(0, equals);
        if (name == "token" && equals != std::string_view::npos && !sawToken) {
            parsed.token = std::string(field.substr(equals + 1));
            sawToken = true;
        } else if (name == "png" && !parsed.png && (equals == std::string_view::npos || field.substr(equals) == "=1")) {
            parsed.png = true;
        } else if (!field.empty()) {
            return std::nullopt;
        }
    }
    return parsed;
}

Decision decide(std::string_view target, std::string_view token) {
    const auto parsed = parseTarget(target);
    if (!parsed || !sameToken(parsed->token, token)) return {403, Route::Page};
    const auto found = std::find_if(kRoutes.begin(), kRoutes.end(),
                                    [&](const RouteEntry& entry) { return entry.path == parsed->path; });
    if (found == kRoutes.end()) return {404, Route::Page};
    return {200, found->route};
}

}  // namespace lumora::web
