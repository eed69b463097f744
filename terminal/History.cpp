#include "terminal/History.h"

#include <algorithm>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "terminal/TextHelpers.h"

namespace lumora::terminal {

namespace {

constexpr std::int32_t kLastNumber = std::numeric_limits<std::int32_t>::max() - 1;
constexpr std::size_t kLimit = std::numeric_limits<std::int32_t>::max() - 1;

}  // namespace

void History::add(const std::string& text) {
    if (mEntries.size() > kLimit) mEntries.pop_front();
    const std::int32_t next = mEntries.empty() ? 1 : mEntries.back().number + 1;
    mEntries.push_back({next > kLastNumber ? 1 : next, text});
}

const std::string* History::recall(const std::string& line) const {
    if (line.size() < 2 || line.front() != '!') return nullptr;
    const std::string number = line.substr(1);
    if (!isInteger(number)) return nullptr;
    std::int32_t wanted = -1;
    try {
        wanted = toInt(number, -1);
    } catch (const std::out_of_range&) {
        return nullptr;
    }
    if (wanted < 0) return nullptr;
    const auto entry =
        std::find_if(mEntries.begin(), mEntries.end(), [wanted](const HistoryEntry& e) { return e.number == wanted; });
    return entry == mEntries.end() ? nullptr : &entry->text;
}

void History::print() const {
    for (const HistoryEntry& entry : mEntries)
        std::printf("%d %s\n", entry.number, entry.text.c_str());
    std::fflush(stdout);
}

}  // namespace lumora::terminal
