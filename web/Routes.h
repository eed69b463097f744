// The web view's routes: which request targets exist and who may reach them. Pure
// functions, any thread.
#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace lumora::web {

enum class Route { Page, Socket };

// A request target split into its path and the query fields the view knows.
struct Target {
    std::string path;
    std::string token;
    // The watcher asked for lossless pictures.
    bool png = false;
};

// The longest request target accepted.
constexpr std::size_t kMaxTargetLength = 512;

// Parses "/path?name=value&name". Nothing for a target that is too long, does not start
// with '/', holds a byte outside printable ASCII, names a query field twice, or whose
// query has a field that is not "token" or "png".
std::optional<Target> parseTarget(std::string_view target);

// What a request gets: 403 without the right token (whatever the path), 404 for a path
// that is no route, else 200 and the route.
struct Decision {
    int status = 403;
    Route route = Route::Page;
};
Decision decide(std::string_view target, std::string_view token);

}  // namespace lumora::web
