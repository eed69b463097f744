// Fuzzes what the web view parses from the network: request targets with their token, and
// the page's WebSocket messages. Whatever the bytes, no crash, no read out of bounds, and a
// request is let through only with the exact token.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <string_view>

#include "PageMessage.h"
#include "Routes.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    static constexpr std::string_view kToken = "0123456789abcdef0123456789abcdef";
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    const auto decision = lumora::web::decide(text, kToken);
    if (decision.status == 200) {
        const auto target = lumora::web::parseTarget(text);
        if (!target || target->token != kToken) std::abort();
    }
    if (const auto message = lumora::web::parsePageMessage(text)) {
        if (size > lumora::web::kMaxPageMessage) std::abort();
        if (message->kind == lumora::web::PageMessage::Kind::Click && (message->view < 1 || message->view > 5))
            std::abort();
        if (message->kind == lumora::web::PageMessage::Kind::Roi && (message->width < 1 || message->height < 1))
            std::abort();
    }
    return 0;
}
