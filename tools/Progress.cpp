#include "Progress.h"

#include "Terminal.h"
#include "Units.h"

#include <algorithm>
#include <cstdio>
#include <unistd.h>

namespace cli {

namespace {

constexpr int kBarWidth = 24;
constexpr auto kRedrawInterval = std::chrono::milliseconds(100);

} // namespace

CProgressBar::CProgressBar(std::string label, zo::int64 total)
    : m_label(std::move(label)), m_total(total), m_enabled(isTerminal(STDERR_FILENO)),
      m_start(std::chrono::steady_clock::now()), m_lastDraw(m_start - kRedrawInterval)
{
}

CProgressBar::~CProgressBar()
{
    clear();
}

void CProgressBar::update(zo::int64 done)
{
    if (!m_enabled)
        return;
    const auto now = std::chrono::steady_clock::now();
    if (now - m_lastDraw < kRedrawInterval)
        return;
    m_lastDraw = now;
    draw(done, std::chrono::duration<double>(now - m_start).count());
}

void CProgressBar::draw(zo::int64 done, double seconds)
{
    std::string line = "\r\033[K";
    line += m_label;
    line += ' ';
    const double rate = seconds > 0.0 ? static_cast<double>(done) / seconds : 0.0;
    if (m_total > 0) {
        const double share = std::clamp(static_cast<double>(done) / static_cast<double>(m_total), 0.0, 1.0);
        const int filled = static_cast<int>(share * kBarWidth);
        line += '[';
        line.append(static_cast<size_t>(filled), '#');
        line.append(static_cast<size_t>(kBarWidth - filled), ' ');
        line += "] ";
        char percent[16];
        std::snprintf(percent, sizeof percent, "%3d%% ", static_cast<int>(share * 100.0));
        line += percent;
        line += formatBytes(done) + " of " + formatBytes(m_total) + "  " + formatRate(done, seconds);
        if (rate > 0.0)
            line += "  " + formatDuration(static_cast<double>(m_total - done) / rate) + " left";
    } else {
        line += formatBytes(done) + "  " + formatRate(done, seconds);
    }
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    m_drawn = true;
}

void CProgressBar::clear()
{
    if (!m_drawn)
        return;
    std::fputs("\r\033[K", stderr);
    std::fflush(stderr);
    m_drawn = false;
}

} // namespace cli
