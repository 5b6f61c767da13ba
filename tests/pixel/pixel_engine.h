// The seeded engine of the pixelwise tests, defined in arith_test.cpp and
// shared with logic_test.cpp: a case runs an operation on random images and
// compares every element with a reference written from its element rule.
#ifndef KUV_TESTS_PIXEL_PIXEL_ENGINE_H
#define KUV_TESTS_PIXEL_PIXEL_ENGINE_H

#include "tests/support/kuv_test.h"

#include <functional>
#include <string>
#include <vector>

namespace pixeltest {

using Elem = std::function<double(double a, double b)>;   // b is 0 with one source
using Call = std::function<void(const KuvImage* a, const KuvImage* b, KuvImage* d)>;
// Draws what one case runs: a label, the call and its element rule.
using Pick = std::function<void(kuvtest::Rng& rng, std::string* label, Call* call, Elem* elem)>;

// One refusal: the operation, its arguments by letter (see images()), the
// value, and the one report expected; status 0 means no report and nothing written.
struct Refusal {
    const char* op;
    const char* args;
    int32_t value;
    KuvStatus status;
    const char* func;
    const char* context;
};

Call callOf(const std::string& name, int32_t value, int32_t flip, float fvalue);
void run(int nSrc, bool absRule, uint32_t depth, int order, uint64_t seed0, int cases,
         const Pick& pick);
void expectElement(const std::string& name, uint32_t depth, double a, double b, int32_t flip,
                   double want);
void expectRefusals(const std::vector<Refusal>& rows);

}  // namespace pixeltest

#endif
