// The one function taken from libTelvane_BaseLib: the generator of handle values.
#pragma once

extern "C" {

// Writes a handle value within [nLower, nUpper] that no other live handle of the process carries
// into *phHandle. The last argument is always 1 here; its meaning is the base library's own.
// Callers ignore the result.
__attribute__((visibility("default"))) bool BaseLib_OperatorHandle_Create(unsigned long long* phHandle,
                                                                          unsigned long long nLower,
                                                                          unsigned long long nUpper,
                                                                          int nOption);
}
