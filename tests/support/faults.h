// Overrides of FFmpeg functions, of the handle generator and of operator new, for the library's own calls: they log
// the calls and make chosen ones fail. Calls that FFmpeg makes of itself pass through.
#pragma once

#include <functional>
#include <string>
#include <utility>
#include <vector>

struct faults {
    // Lets the nth call (1 is the next one) of this function fail, once; without a name, of any function.
    static void Fail(const std::string& szFunction, int nth = 1)
    {
        s_szFail = szFunction;
        s_nFail = nth;
    }

    // Lets the nth operator new of the program or the library from now on fail, once.
    static void FailNew(int nth) { s_nFailNew = nth; }

    // Runs something within the next call of this function, once.
    static void Within(const std::string& szFunction, std::function<void()> run)
    {
        s_szWithin = szFunction;
        s_Within = std::move(run);
    }

    // Makes the handle generator return this value, once.
    static void NextHandle(unsigned long long hHandle) { s_hNext = hHandle; }

    // Forgets all of it, the log too.
    static void Reset();

    // The library's calls since Reset, by name, in order. Operator new is not among them.
    static const std::vector<std::string>& Log() { return s_Log; }

    // The number of calls that were made to fail since Reset.
    static int Failed() { return s_nFailed; }

    // For the overrides.
    static inline std::string s_szFail;
    static inline int s_nFail = 0;
    static inline int s_nFailNew = 0;
    static inline std::string s_szWithin;
    static inline std::function<void()> s_Within;
    static inline unsigned long long s_hNext = 0;
    static inline std::vector<std::string> s_Log;
    static inline int s_nFailed = 0;
};
