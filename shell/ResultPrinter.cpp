#include "ResultPrinter.h"

#include <cstdio>

#include <halden/sensor/LumoraResult.h>

namespace lumora::shell {

void print_result(std::uint32_t code) {
    const char* text = halden::sensor::result_text(code);
    if (text == nullptr) {
        std::printf("-> result : ");
    } else {
        std::printf("-> result : %s\n", text);
    }
    std::fflush(stdout);
}

}  // namespace lumora::shell
