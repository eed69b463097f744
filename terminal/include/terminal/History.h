// The numbered list of entered lines behind the "history" command and "!N" recall.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <string>

namespace lumora::terminal {

struct HistoryEntry {
    std::int32_t number;
    std::string text;
};

// Only the shell thread uses it; it has no lock.
class History {
public:
    // Records a line under the next number, counting from 1; past the largest number the
    // count starts at 1 again.
    void add(const std::string& text);
    // For a line "!N" where N is a recorded number, that entry's text; null for any other
    // line ("!", "!x", "!-1", "!1.0", a number never given).
    const std::string* recall(const std::string& line) const;
    // Every entry as "N text\n", oldest first, to standard output.
    void print() const;

    bool empty() const { return mEntries.empty(); }
    std::size_t size() const { return mEntries.size(); }
    const HistoryEntry& at(std::size_t index) const { return mEntries.at(index); }

private:
    std::deque<HistoryEntry> mEntries;
};

}  // namespace lumora::terminal
