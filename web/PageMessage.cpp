#include "PageMessage.h"

namespace lumora::web {

namespace {

// The next blank-separated decimal number of at most `limit`; consumes it and its blank.
std::optional<std::uint64_t> number(std::string_view& text, std::uint64_t limit) {
    std::size_t digits = 0;
    std::uint64_t value = 0;
    while (digits < text.size() && text[digits] >= '0' && text[digits] <= '9') {
        value = value * 10 + static_cast<std::uint64_t>(text[digits] - '0');
        if (value > limit) return std::nullopt;
        ++digits;
    }
    if (digits == 0) return std::nullopt;
    text.remove_prefix(digits);
    if (!text.empty()) {
        if (text.front() != ' ' || text.size() == 1) return std::nullopt;
        text.remove_prefix(1);
    }
    return value;
}

bool take(std::string_view& text, std::string_view word) {
    if (text.substr(0, word.size()) != word) return false;
    text.remove_prefix(word.size());
    return true;
}

}  // namespace

std::optional<PageMessage> parsePageMessage(std::string_view text) {
    if (text.size() > kMaxPageMessage) return std::nullopt;
    PageMessage message;
    if (take(text, "click ")) {
        message.kind = PageMessage::Kind::Click;
        const auto view = number(text, 5);
        const auto x = view ? number(text, 65535) : std::nullopt;
        const auto y = x ? number(text, 65535) : std::nullopt;
        const auto sequence = y ? number(text, UINT32_MAX) : std::nullopt;
        if (!sequence || *view < 1 || !text.empty()) return std::nullopt;
        message.view = static_cast<int>(*view);
        message.x = static_cast<int>(*x);
        message.y = static_cast<int>(*y);
        message.sequence = static_cast<std::uint32_t>(*sequence);
        return message;
    }
    const bool cloud = take(text, "cloud ");
    if (cloud || take(text, "measure ")) {
        message.kind = cloud ? PageMessage::Kind::Cloud : PageMessage::Kind::Measure;
        if (text != "0" && text != "1") return std::nullopt;
        message.on = text == "1";
        return message;
    }
    if (take(text, "roi ")) {
        message.kind = PageMessage::Kind::Roi;
        const auto x = number(text, 65535);
        const auto y = x ? number(text, 65535) : std::nullopt;
        const auto width = y ? number(text, 65535) : std::nullopt;
        const auto height = width ? number(text, 65535) : std::nullopt;
        if (!height || *width < 1 || *height < 1 || !text.empty()) return std::nullopt;
        message.x = static_cast<int>(*x);
        message.y = static_cast<int>(*y);
        message.width = static_cast<int>(*width);
        message.height = static_cast<int>(*height);
        return message;
    }
    if (take(text, "decoded ")) {
        message.kind = PageMessage::Kind::Decoded;
        const auto sequence = number(text, UINT32_MAX);
        if (!sequence || !text.empty()) return std::nullopt;
        message.sequence = static_cast<std::uint32_t>(*sequence);
        return message;
    }
    return std::nullopt;
}

}  // namespace lumora::web
