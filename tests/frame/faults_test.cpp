// What happens when the handle generator repeats the value of a live handle.

#include "kinds.h"
#include "support/faults.h"

namespace
{

TEST(RepeatedHandle, KeepsTheOlderRecordAndSucceeds)
{
    for (const test::Kind& kind : test::kKinds) {
        SCOPED_TRACE(kind.szName);
        test::Handle hOlder = 0;
        test::Handle hNewer = 0;
        EXPECT_OK(kind.pCreate(&hOlder, 64));
        EXPECT_OK(kind.pWork(hOlder));
        const int nSize = test::g_nOut;
        faults::NextHandle(hOlder);
        {
            const test::KeepsMemoryByContract keeps;
            // A new scaler is set up by its handle, which would reach the older one here.
            EXPECT_OK(kind.cFamily == 's' ? AVFilter_VideoScale_Init(&hNewer) : kind.pCreate(&hNewer, 32));
        }
        EXPECT_EQ(hNewer, hOlder);
        EXPECT_OK(kind.pWork(hNewer));
        EXPECT_EQ(test::g_nOut, nSize);
        EXPECT_OK(kind.pDestroy(hOlder));
        test::ExpectFailure(kind.pWork(hNewer), kind.nNotFound);
    }
    faults::Reset();
}

} // namespace
