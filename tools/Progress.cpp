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

CProgressBar::CProgressBar(std::string label, zo::int64 total, std::string countNoun)
    : m_label(std::move(label)), m_total(total), m_countNoun(std::move(countNoun)),
      m_enabled(isTerminal(STDERR_FILENO)), m_start(std::chrono::steady_clock::now()),
      m_lastDraw(m_start - kRedrawInterval)
{}

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
        line += (m_countNoun.empty() ? formatBytes(done) : std::to_string(done)) + " of " + amountText(m_total) + "  " +
            rateText(done, seconds);
        if (rate > 0.0)
            line += "  " + formatDuration(static_cast<double>(m_total - done) / rate) + " left";
    } else {
        line += amountText(done) + "  " + rateText(done, seconds);
    }
    std::fputs(line.c_str(), stderr);
    std::fflush(stderr);
    m_drawn = true;
}

std::string CProgressBar::amountText(zo::int64 amount) const
{
    return m_countNoun.empty() ? formatBytes(amount) : std::to_string(amount) + " " + m_countNoun;
}

std::string CProgressBar::rateText(zo::int64 done, double seconds) const
{
    if (m_countNoun.empty())
        return formatRate(done, seconds);
    if (seconds <= 0.0)
        return "-";
    char text[32];
    std::snprintf(text, sizeof text, "%.0f/s", static_cast<double>(done) / seconds);
    return text;
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
