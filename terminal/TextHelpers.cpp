#include "terminal/TextHelpers.h"

#include <cerrno>
#include <cstdlib>
#include <limits>
#include <sstream>
#include <stdexcept>

namespace lumora::terminal {

bool isNumber(const std::string& text) {
    if (text.empty()) return false;
    std::istringstream in(text);
    double value = 0;
    if (!(in >> value)) return false;
    in >> std::ws;
    return in.eof();
}

bool isInteger(const std::string& text) {
    if (!isNumber(text)) return false;
    char* end = nullptr;
    const int saved = errno;
    std::strtol(text.c_str(), &end, 10);
    errno = saved;
    return end == text.c_str() + text.size();
}

std::int32_t toInt(const std::string& text, std::int32_t fallback) {
    if (text.empty()) return fallback;
    const int saved = errno;
    errno = 0;
    char* end = nullptr;
    const long value = std::strtol(text.c_str(), &end, 10);
    if (end == text.c_str()) throw std::invalid_argument("stoi");
    if (errno == ERANGE || value < std::numeric_limits<std::int32_t>::min() ||
        value > std::numeric_limits<std::int32_t>::max())
        throw std::out_of_range("stoi");
    errno = saved;
    return static_cast<std::int32_t>(value);
}

double toDouble(const std::string& text, std::int32_t fallback) {
    if (text.empty()) return fallback;
    const int saved = errno;
    errno = 0;
    char* end = nullptr;
    const double value = std::strtod(text.c_str(), &end);
    if (end == text.c_str()) throw std::invalid_argument("stod");
    if (errno == ERANGE) throw std::out_of_range("stod");
    errno = saved;
    return value;
}

}  // namespace lumora::terminal
