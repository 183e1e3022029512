// Differences against noise, compared with values from printed tables.
#include "Compare/Statistics.h"

#include <gtest/gtest.h>

namespace
{

using qelix::Estimate;

TEST(Statistics, OneRunHasTheNoiseThatItTells)
{
    const Estimate estimate = qelix::EstimateOf(std::vector{100.0}, std::vector{25.0});
    EXPECT_DOUBLE_EQ(estimate.m_mean, 100);
    EXPECT_DOUBLE_EQ(estimate.m_errorSquared, 25);
    EXPECT_DOUBLE_EQ(estimate.m_freedom, 0);
}

TEST(Statistics, TheSpreadOfRunsCountsWhereItIsLarger)
{
    const Estimate wide = qelix::EstimateOf(std::vector{90.0, 100.0, 110.0}, std::vector{1.0, 1.0, 1.0});
    EXPECT_DOUBLE_EQ(wide.m_errorSquared, 100.0 / 3);
    EXPECT_DOUBLE_EQ(wide.m_freedom, 2);
    const Estimate narrow = qelix::EstimateOf(std::vector{100.0, 100.0}, std::vector{8.0, 8.0});
    EXPECT_DOUBLE_EQ(narrow.m_errorSquared, 4);
    EXPECT_DOUBLE_EQ(narrow.m_freedom, 0);
}

TEST(Statistics, LikelihoodsAreThoseOfTheTables)
{
    // Two-sided 5 % points: 1.960 of the normal distribution, 4.303, 2.228 and 2.042 of Student's with 2,
    // 10, 30.
    EXPECT_NEAR(qelix::Likelihood({0, 1, 0}, {1.959964, 0, 0}), 0.05, 1e-6);
    EXPECT_NEAR(qelix::Likelihood({0, 1, 2}, {4.302653, 0, 0}), 0.05, 1e-6);
    EXPECT_NEAR(qelix::Likelihood({0, 1, 10}, {-2.228139, 0, 0}), 0.05, 1e-6);
    EXPECT_NEAR(qelix::Likelihood({0, 1, 30}, {2.042272, 0, 0}), 0.05, 1e-6);
}

TEST(Statistics, WithoutNoiseEveryDifferenceIsCertain)
{
    EXPECT_EQ(qelix::Likelihood({5, 0, 0}, {5, 0, 0}), 1);
    EXPECT_EQ(qelix::Likelihood({5, 0, 0}, {6, 0, 0}), 0);
}

TEST(Statistics, FewOfManyAreToldByChance)
{
    // The example of the method's authors: of fifteen, the four smallest stand at 5 %.
    const std::vector<double> likelihoods = {0.0001, 0.0004, 0.0019, 0.0095, 0.0201, 0.0278, 0.0298, 0.0344,
                                             0.0459, 0.3240, 0.4262, 0.5719, 0.6528, 0.7590, 1.000};
    const std::vector<bool> told = qelix::Significant(likelihoods, 0.05);
    for (std::size_t i = 0; i < told.size(); ++i)
    {
        EXPECT_EQ(told[i], i < 4) << i;
    }
    EXPECT_TRUE(qelix::Significant({}, 0.05).empty());
}

} // namespace
