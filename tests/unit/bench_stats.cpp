// The figures bench/run prints come from these helpers: a wrong percentile, a growth rule that cannot fail or a
// table whose columns drift would misreport every run.
#include "../../bench/bench_util.h"

#include <gtest/gtest.h>

#include <sstream>

using gwbench::median;
using gwbench::quantile;
using gwbench::Table;
using gwbench::worstPerSectionGrowth;

TEST(BenchStats, QuantilesFollowTheNearestRankRule)
{
    std::vector<double> hundred;
    for (int i = 100; i >= 1; i--) // unsorted on purpose
        hundred.push_back(i);
    EXPECT_EQ(quantile(hundred, 0.5), 50);
    EXPECT_EQ(quantile(hundred, 0.99), 99);
    EXPECT_EQ(quantile(hundred, 1.0), 100);
    EXPECT_EQ(quantile(hundred, 0.0), 1);
    // Ten values: the 99th percentile is the largest, the 90th the ninth.
    const std::vector<double> ten = {7, 1, 9, 3, 5, 10, 2, 8, 4, 6};
    EXPECT_EQ(quantile(ten, 0.99), 10);
    EXPECT_EQ(quantile(ten, 0.9), 9);
    EXPECT_EQ(quantile({42}, 0.99), 42);
    EXPECT_EQ(quantile({}, 0.5), 0);
}

TEST(BenchStats, MedianOfOddAndEvenSamples)
{
    EXPECT_EQ(median({5, 1, 3}), 3);
    EXPECT_EQ(median({4, 1, 3, 2}), 2.5);
    EXPECT_EQ(median({}), 0);
}

TEST(BenchStats, PerSectionGrowthFlagsWorseThanLinearCost)
{
    // Linear with a fixed part (1 + n / 500): time per section falls, the worst step stays below 1.
    EXPECT_LT(worstPerSectionGrowth({{500, 2.0}, {5000, 11.0}, {50000, 101.0}}), 1.0);
    // Exactly linear.
    EXPECT_DOUBLE_EQ(worstPerSectionGrowth({{500, 1.0}, {5000, 10.0}, {50000, 100.0}}), 1.0);
    // Quadratic between the two large sizes: the step from 5,000 to 50,000 is ten times worse per section.
    EXPECT_DOUBLE_EQ(worstPerSectionGrowth({{500, 1.0}, {5000, 10.0}, {50000, 1000.0}}), 10.0);
    EXPECT_EQ(worstPerSectionGrowth({{500, 1.0}}), 0);
}

TEST(BenchStats, TableAlignsColumnsWithoutTrailingBlanks)
{
    Table t({"figure", "value", "target", "verdict"});
    t.add({"bus: round trip / floor", "2.10x", "<= 3x", "ok"});
    t.add({"a", "1"}); // a short row leaves the other cells empty
    std::istringstream in(t.text());
    std::vector<std::string> lines;
    for (std::string l; std::getline(in, l);)
        lines.push_back(l);
    ASSERT_EQ(lines.size(), 4u);
    EXPECT_EQ(lines[0], "figure                   value  target  verdict");
    EXPECT_EQ(lines[1], "-----------------------  -----  ------  -------");
    EXPECT_EQ(lines[2], "bus: round trip / floor  2.10x  <= 3x   ok");
    EXPECT_EQ(lines[3], "a                        1");
}
