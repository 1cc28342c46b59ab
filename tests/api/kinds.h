// Handles of the five kinds that give out what is handed in, as values that can be told apart.
#pragma once

#include "support/graph.h"

namespace test
{

using jobs::Kind;
using jobs::kKinds;

inline constexpr jobs::Size kSize{64, 16, 64};
inline constexpr int kCapacity = 1 << 13;
inline unsigned char g_Out[kCapacity];
inline int g_nGot; // the value that is in it

inline Handle NotFound(const Kind& kind)
{
    return kind.nBase + (kind.cFamily == 'a' ? 6 : 7);
}

// A value as it is handed in. Odd ones are whole pictures; each has a block of its own, because a mix keeps to it.
inline jobs::Block Filled(int nValue)
{
    static unsigned char blocks[256][1536];
    std::memset(blocks[nValue], nValue, sizeof(blocks[0]));
    return {blocks[nValue], kSize, nValue % 2 != 0};
}

inline bool Send(const Kind& kind, Handle h, int nInput, int nValue)
{
    return kind.Send(h, nInput, Filled(nValue));
}

// Takes something out; what fails must have written nothing. Mixes give the sum of the values in them, the audio
// filter makes 100 by itself.
inline bool Take(const Kind& kind, Handle h, int nValue)
{
    std::memset(g_Out, 0xCD, sizeof(g_Out));
    int nOut = kCapacity;
    const bool bDone = kind.Take(h, Filled(nValue), g_Out, &nOut);
    g_nGot = bDone ? g_Out[0] + (kind.cFamily == 'm' ? g_Out[kSize.nWidth] : 0) : -1;
    EXPECT_EQ(bDone, nOut < kCapacity);
    EXPECT_TRUE(bDone || std::all_of(g_Out, g_Out + kCapacity, [](int n) { return n == 0xCD; }));
    return bDone;
}

// Whether what is handed in comes out, whole and in planes.
inline bool Work(const Kind& kind, Handle h)
{
    for (const int n : {100, 101}) {
        if ((kind.Send != nullptr && (!Send(kind, h, 0, 40) || !Send(kind, h, 1, n - 40))) ||
            !Take(kind, h, n)) {
            return false;
        }
        EXPECT_EQ(g_nGot, &kind == &kKinds[jobs::kAudioFilter] ? 100 : n) << kind.szName;
    }
    return true;
}

} // namespace test
