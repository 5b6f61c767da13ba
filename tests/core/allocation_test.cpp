// Calls that need no temporary make no block at all: not one per call, not
// one per row, not one per tile. The library allocates through the counted
// kuvMalloc family and pixel blocks only, so the count of blocks made since
// load is the allocator that sees everything.
#include "kuv_own.h"
#include "tests/support/kuv_test.h"

#include <functional>

using namespace kuvtest;

namespace {

using Op = std::function<void(const KuvImage*, const KuvImage*, KuvImage*)>;

struct NamedOp {
    const char* name;
    Op run;
};

const NamedOp kOps[] = {
    {"kuvAdd", [](const KuvImage* a, const KuvImage* b, KuvImage* d) { kuvAdd(a, b, d); }},
    {"kuvSubtract", [](const KuvImage* a, const KuvImage* b, KuvImage* d) { kuvSubtract(a, b, d); }},
    {"kuvMultiply", [](const KuvImage* a, const KuvImage* b, KuvImage* d) { kuvMultiply(a, b, d); }},
    {"kuvAnd", [](const KuvImage* a, const KuvImage* b, KuvImage* d) { kuvAnd(a, b, d); }},
    {"kuvAddS", [](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvAddS(a, d, 7); }},
    {"kuvSubtractS", [](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvSubtractS(a, d, 7, 1); }},
    {"kuvMultiplyS", [](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvMultiplyS(a, d, 3); }},
    {"kuvAbs", [](const KuvImage* a, const KuvImage*, KuvImage* d) { kuvAbs(a, d); }},
};

// Runs op and gives the blocks it made; it must also report nothing.
long blocksMadeBy(const NamedOp& op, const KuvImage* a, const KuvImage* b, KuvImage* d) {
    ReportCapture capture;
    const long before = ownBlocksMade();
    op.run(a, b, d);
    const long made = ownBlocksMade() - before;
    EXPECT_EQ(capture.count(), 0u) << op.name;
    return made;
}

TEST(Allocation, PatternOperationsMakeNoBlockWithoutTwoMasks) {
    for (const NamedOp& op : kOps) {
        SCOPED_TRACE(op.name);
        // 16S so that every operation of the table accepts the images.
        ImagePtr a = makeImage(KUV_DEPTH_16S, 3, 37, 21), b = makeImage(KUV_DEPTH_16S, 3, 37, 21);
        ImagePtr d = makeImage(KUV_DEPTH_16S, 3, 37, 21);
        fillRandom(a.get(), 1);
        fillRandom(b.get(), 2);
        EXPECT_EQ(blocksMadeBy(op, a.get(), b.get(), d.get()), 0) << "whole images";

        setRoi(a.get(), 2, 3, 2, 30, 15);
        setRoi(d.get(), 2, 1, 4, 29, 16);
        setRoi(b.get(), 2, 5, 1, 31, 17);
        EXPECT_EQ(blocksMadeBy(op, a.get(), b.get(), d.get()), 0) << "regions, channel of interest";

        // One mask is read where it lies.
        attachMask(d.get(), makeMask(37, 21, 1));
        EXPECT_EQ(blocksMadeBy(op, a.get(), b.get(), d.get()), 0) << "one mask";
    }
}

TEST(Allocation, TileWalkMakesNoBlock) {
    ImagePtr backing = makeImage(KUV_DEPTH_8U, 3, 50, 33);
    fillRandom(backing.get(), 3);
    TileStore store(std::move(backing), 16, 8);
    ImagePtr b = makeImage(KUV_DEPTH_8U, 3, 50, 33), d = makeImage(KUV_DEPTH_8U, 3, 50, 33);
    fillRandom(b.get(), 4);
    const long before = ownBlocksMade();
    kuvAdd(store.image(), b.get(), d.get());
    kuvAdd(b.get(), store.image(), store.image());
    EXPECT_EQ(ownBlocksMade(), before);
    EXPECT_TRUE(store.faults().empty());
}

TEST(Allocation, TwoMasksMakeOneTemporaryThatIsFreed) {
    ImagePtr a = makeImage(KUV_DEPTH_8U, 1, 40, 20), b = makeImage(KUV_DEPTH_8U, 1, 40, 20);
    ImagePtr d = makeImage(KUV_DEPTH_8U, 1, 40, 20);
    attachMask(a.get(), makeMask(40, 20, 1));
    attachMask(d.get(), makeMask(40, 20, 1));
    const long made = ownBlocksMade(), outstanding = ownOutstandingBlocks();
    kuvAdd(a.get(), b.get(), d.get());
    EXPECT_GT(ownBlocksMade(), made);
    EXPECT_EQ(ownOutstandingBlocks(), outstanding);
}

}  // namespace
