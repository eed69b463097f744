#include "Token.h"

#include <sys/random.h>

#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>

namespace lumora::web {

std::string makeToken() {
    std::array<std::uint8_t, 16> bytes{};
    std::size_t filled = 0;
    while (filled < bytes.size()) {
        const ssize_t got = getrandom(bytes.data() + filled, bytes.size() - filled, 0);
        if (got < 0 && errno == EINTR) continue;
        if (got <= 0) return {};
        filled += static_cast<std::size_t>(got);
    }
    static constexpr char kHex[] = "0123456789abcdef";
    std::string token;
    for (const std::uint8_t byte : bytes) {
        token += kHex[byte >> 4];
        token += kHex[byte & 15];
    }
    return token;
}

bool sameToken(std::string_view given, std::string_view expected) {
    if (expected.empty() || given.size() != expected.size()) return false;
    unsigned difference = 0;
    for (std::size_t i = 0; i < expected.size(); ++i)
        difference |=
            static_cast<unsigned>(static_cast<unsigned char>(given[i]) ^ static_cast<unsigned char>(expected[i]));
    return difference == 0;
}

}  // namespace lumora::web
