// The messages the page sends over its WebSocket, as text:
//   "click VIEW X Y SEQ"  read the value under the picture point (X, Y) of VIEW (1..5) in
//                         the picture numbered SEQ that the page shows
//   "cloud 0" / "cloud 1" the page's 3-D view is closed / open
//   "decoded SEQ"         the page has decoded the pictures numbered SEQ
//   "measure 0" / "measure 1"  the page's Measure is off / on
//   "roi X Y W H"         measure over columns X to X + W - 1 and rows Y to Y + H - 1 of the
//                         frame (W and H at least 1)
// Pure functions, any thread.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

namespace lumora::web {

// The longest message the page sends; a longer one is not the page's.
constexpr std::size_t kMaxPageMessage = 64;

struct PageMessage {
    enum class Kind { Click, Cloud, Decoded, Measure, Roi };
    Kind kind = Kind::Click;
    int view = 0;
    int x = 0;
    int y = 0;
    int width = 0;
    int height = 0;
    std::uint32_t sequence = 0;
    bool on = false;
};

// Nothing for any text that is not exactly one of the forms above: numbers are plain
// decimal digits (coordinates below 65536, sequence numbers within 32 bits) separated by
// single blanks.
std::optional<PageMessage> parsePageMessage(std::string_view text);

}  // namespace lumora::web
