// The bundled generator of handle values.

#include "../../src/common/handle.h"

#include <gtest/gtest.h>

#include <utility>

namespace
{

using Handle = unsigned long long;

TEST(HandleGenerator, CountsUpWithinTheBoundsAndStartsAgain)
{
    Handle h = 42;
    EXPECT_FALSE(BaseLib_OperatorHandle_Create(&h, 2, 1, 1) ||
                 BaseLib_OperatorHandle_Create(nullptr, 1, 2, 1));
    EXPECT_EQ(h, 42U);
    for (const auto& [nLower, nUpper] :
         {std::pair(5ULL, 5ULL), {10, 12}, {1000000001, 9000000002}, {0, ~0ULL}}) {
        Handle hBefore = 0;
        for (int i = 0; i < 7; ++i, hBefore = h) {
            EXPECT_TRUE(BaseLib_OperatorHandle_Create(&h, nLower, nUpper, 1));
            EXPECT_TRUE(h >= nLower && h <= nUpper);
            EXPECT_TRUE(i == 0 || h == (hBefore == nUpper ? nLower : hBefore + 1)) << h;
        }
    }
}

} // namespace
