// Helpers shared by the benchmark programs and the report: order statistics of a sample of timings, the rules
// that turn a figure into a verdict, and the plain-text table.
#pragma once

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <string>
#include <vector>

namespace gwbench {

// The q-quantile (0 <= q <= 1) by the nearest-rank rule: the smallest value with at least q of the sample at or
// below it. 0 for an empty sample.
inline double quantile(std::vector<double> v, double q)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const double rank = std::ceil(q * double(v.size()));
    const size_t at = rank < 1 ? 0 : std::min(v.size() - 1, size_t(rank) - 1);
    return v[at];
}

// The median; the mean of the two middle values for an even sample.
inline double median(std::vector<double> v)
{
    if (v.empty())
        return 0;
    std::sort(v.begin(), v.end());
    const size_t m = v.size() / 2;
    return v.size() % 2 ? v[m] : (v[m - 1] + v[m]) / 2;
}

// Linear cost: the time per section of each size (sizes ascending) may exceed the time per section of the
// previous size by at most `tolerance` times. Returns the largest such step ratio (0 with fewer than two sizes).
inline double worstPerSectionGrowth(const std::vector<std::pair<long, double>> &sizeAndTime)
{
    double worst = 0;
    for (size_t i = 1; i < sizeAndTime.size(); i++) {
        const double before = sizeAndTime[i - 1].second / double(sizeAndTime[i - 1].first);
        const double now = sizeAndTime[i].second / double(sizeAndTime[i].first);
        if (before > 0)
            worst = std::max(worst, now / before);
    }
    return worst;
}

// printf into a std::string.
template <class... A> std::string format(const char *fmt, A... args)
{
    char buf[256];
    std::snprintf(buf, sizeof buf, fmt, args...);
    return buf;
}

// A plain-text table with aligned columns: a header, a rule under it, then the rows. Cells are left-aligned;
// a row shorter than the header leaves the rest empty; every line ends without trailing blanks.
class Table {
public:
    explicit Table(std::vector<std::string> header) : header_(std::move(header)) {}
    void add(std::vector<std::string> row) { rows_.push_back(std::move(row)); }
    std::string text() const
    {
        std::vector<size_t> width(header_.size(), 0);
        auto measure = [&](const std::vector<std::string> &r) {
            for (size_t i = 0; i < r.size() && i < width.size(); i++)
                width[i] = std::max(width[i], r[i].size());
        };
        measure(header_);
        for (const auto &r : rows_)
            measure(r);
        std::string out;
        auto line = [&](const std::vector<std::string> &r) {
            std::string l;
            for (size_t i = 0; i < width.size(); i++) {
                const std::string cell = i < r.size() ? r[i] : "";
                l += cell;
                if (i + 1 < width.size())
                    l += std::string(width[i] - cell.size() + 2, ' ');
            }
            l.erase(l.find_last_not_of(' ') + 1);
            out += l + "\n";
        };
        line(header_);
        std::vector<std::string> rule;
        for (size_t w : width)
            rule.push_back(std::string(w, '-'));
        line(rule);
        for (const auto &r : rows_)
            line(r);
        return out;
    }

private:
    std::vector<std::string> header_;
    std::vector<std::vector<std::string>> rows_;
};

} // namespace gwbench
