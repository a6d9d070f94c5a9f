// CProgressBar: the progress of long work on stderr, when stderr is a
// terminal: a bar, the share done, the rate and the time left. On a pipe or
// a file it writes nothing at all. Used by one thread.
#pragma once

#include "zo/Base.h"

#include <chrono>
#include <string>

namespace cli {

class CProgressBar {
public:
    // `total` is the amount of bytes the work will handle, -1 when unknown
    // (then only the amount done and the rate are shown). With a `countNoun`
    // ("files") the work counts things instead of bytes, and the bar shows
    // "532 of 1184 files" and a rate per second.
    CProgressBar(std::string label, zo::int64 total, std::string countNoun = std::string());
    // Clears the bar's line; never throws.
    ~CProgressBar();
    CProgressBar(const CProgressBar&) = delete;
    CProgressBar& operator=(const CProgressBar&) = delete;

    // Notes that `done` bytes are handled; redraws at most ten times a second.
    void update(zo::int64 done);
    // Clears the bar's line, so that what is printed next starts on a clean one.
    void clear();

private:
    void draw(zo::int64 done, double seconds);
    // `amount` in the work's unit: bytes, or a count of the noun.
    std::string amountText(zo::int64 amount) const;
    std::string rateText(zo::int64 done, double seconds) const;

    std::string m_label;
    zo::int64 m_total;
    std::string m_countNoun;
    bool m_enabled;
    bool m_drawn = false;
    std::chrono::steady_clock::time_point m_start;
    std::chrono::steady_clock::time_point m_lastDraw;
};

} // namespace cli
