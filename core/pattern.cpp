// The pattern driver shared by the pixelwise operations.
#include "core/pattern.h"
#include "core/tilewalk.h"

namespace kuv {
namespace {

// Context texts of the tests, in the wording of the operation's argument
// names: two sources (srcImageA, srcImageB) or one (srcImage).
struct ArityTexts {
    const char* depth[2];
    const char* order[2];
    const char* channels[2];
};

constexpr ArityTexts twoSources = {
    {"(srcImageA->depth != dstImage->depth)", "(srcImageB->depth != dstImage->depth)"},
    {"(srcImageA->dataOrder != dstImage->dataOrder)",
     "(srcImageB->dataOrder != dstImage->dataOrder)"},
    {"(nChSrcA != nChDst)", "(nChSrcB != nChDst)"},
};

constexpr ArityTexts oneSource = {
    {"(srcImage->depth != dstImage->depth)", nullptr},
    {"(srcImage->dataOrder != dstImage->dataOrder)", nullptr},
    {"(nChSrc != nChDst)", nullptr},
};

// Channels an image takes part with, and its channel index.
void channelsOf(const KuvImage* image, int32_t* nCh, int32_t* ch, bool* hasCoi) {
    *nCh = image->nChannels - (image->alphaChannel != 0 ? 1 : 0);
    *ch = 0;
    *hasCoi = false;
    if (image->roi != nullptr && image->roi->coi > 0) {
        *nCh = 1;
        *ch = image->roi->coi - 1;
        *hasCoi = true;
    }
}

// The pattern's channel plan; gives the failed test's text, or null.
const char* patternPlan(const KuvImage* const* src, int nSrc, const KuvImage* dst,
                        const ArityTexts& texts, Plan* plan) {
    bool anyCoi = false, coi = false;
    int32_t nChDst = 0;
    channelsOf(dst, &nChDst, &plan->ch[2], &coi);
    anyCoi |= coi;
    plan->hasAlpha = dst->alphaChannel != 0;
    int32_t nChSrc[2] = {0, 0};
    for (int i = 0; i < nSrc; ++i) {
        channelsOf(src[i], &nChSrc[i], &plan->ch[i], &coi);
        anyCoi |= coi;
        plan->hasAlpha |= src[i]->alphaChannel != 0;
    }
    plan->nCh = nChDst;
    plan->allChannels = !anyCoi;
    for (int i = 0; i < nSrc; ++i) {
        if (nChSrc[i] != nChDst) return texts.channels[i];
    }
    return nullptr;
}

// The channel rule of kuvAbs: a coi counts only on an image of several
// channels and must be on both; otherwise the lesser channel count is
// computed, leaving out alpha only when both images have one.
const char* absPlan(const KuvImage* src, const KuvImage* dst, Plan* plan) {
    auto hasCoi = [](const KuvImage* image) {
        return image->roi != nullptr && image->roi->coi != 0 && image->nChannels > 1;
    };
    const bool srcCoi = hasCoi(src), dstCoi = hasCoi(dst);
    if (srcCoi != dstCoi) return "(nChSrcCoi != nChDstCoi)";
    plan->ch[0] = plan->ch[1] = plan->ch[2] = 0;
    if (srcCoi) {
        plan->ch[0] = src->roi->coi - 1;
        plan->ch[2] = dst->roi->coi - 1;
        plan->nCh = 1;
        plan->allChannels = false;
        plan->hasAlpha = false;
        return nullptr;
    }
    const int32_t srcColour = src->nChannels - (src->alphaChannel != 0 ? 1 : 0);
    const int32_t dstColour = dst->nChannels - (dst->alphaChannel != 0 ? 1 : 0);
    if (srcColour != dstColour && src->nChannels != dst->nChannels) {
        return "(srcImage->nChannels != dstImage->nChannels)";
    }
    const bool bothAlpha = src->alphaChannel != 0 && dst->alphaChannel != 0;
    plan->nCh = bothAlpha ? src->nChannels - 1
                          : (src->nChannels < dst->nChannels ? src->nChannels : dst->nChannels);
    plan->allChannels = true;
    // Pixels wider than the channels computed walk in groups.
    plan->hasAlpha = src->nChannels != plan->nCh || dst->nChannels != plan->nCh;
    return nullptr;
}

// Frees a temporary mask on every way out of the driver.
struct MaskHolder {
    KuvImage* mask = nullptr;
    bool temporary = false;
    ~MaskHolder() {
        if (temporary) kuvDeallocate(mask, KUV_IMAGE_HEADER | KUV_IMAGE_DATA);
    }
};

}  // namespace

void runPattern(const PatternOp& op, const KuvImage* srcA, const KuvImage* srcB, KuvImage* dst,
                const void* param) {
    const ArityTexts& texts = op.nSrc == 2 ? twoSources : oneSource;
    const KuvImage* src[2] = {srcA, op.nSrc == 2 ? srcB : nullptr};
    auto fail = [&](KuvStatus status, const char* context, int line) {
        kuvError(status, op.func, context, op.file, line);
    };

    for (int i = 0; i < op.nSrc; ++i) {
        if (kuvCheckImageHeader(src[i]) != KUV_StsNoError) {
            return fail(kuvGetErrStatus(), "Incorrect Image", __LINE__);
        }
    }
    if (kuvCheckImageHeader(dst) != KUV_StsNoError) {
        return fail(kuvGetErrStatus(), "Incorrect Image", __LINE__);
    }
    for (int i = 0; i < op.nSrc; ++i) {
        if (src[i]->depth != dst->depth) return fail(KUV_StsBadArgument, texts.depth[i], __LINE__);
    }
    if (op.orderTest && (dst->depth != KUV_DEPTH_1U || op.orderTestAt1U)) {
        for (int i = 0; i < op.nSrc; ++i) {
            if (src[i]->dataOrder != dst->dataOrder) {
                return fail(KUV_StsBadArgument, texts.order[i], __LINE__);
            }
        }
    }

    LineArgs args{};
    args.src[0] = src[0];
    args.src[1] = src[1];
    args.dst = dst;
    args.param = param;
    args.flatPath = op.flatPath;
    const char* channelFault = op.channels == CHANNELS_PATTERN
                                   ? patternPlan(src, op.nSrc, dst, texts, &args.plan)
                                   : absPlan(src[0], dst, &args.plan);
    if (channelFault != nullptr) return fail(KUV_StsBadArgument, channelFault, __LINE__);

    MaskHolder mask;
    int outcome = OWN_MASK_NONE_OR_ONE;
    mask.mask = op.nSrc == 2 ? ownMergeMasks(src[0]->maskROI, src[1]->maskROI, dst->maskROI, &outcome)
                             : ownMergeMasks(src[0]->maskROI, dst->maskROI, nullptr, &outcome);
    if (outcome == OWN_MASK_EMPTY) return;
    if (outcome == OWN_MASK_NO_MEMORY) return fail(KUV_StsOutOfMemory, "Out of memory", __LINE__);
    mask.temporary = outcome == OWN_MASK_TEMPORARY;
    args.mask = mask.mask;

    const WorkerPair& pair = op.table[ownDepthIndex(dst->depth)];
    const LineWorker worker = args.mask != nullptr ? pair.masked : pair.plain;
    if (worker == nullptr) return fail(KUV_StsBadArgument, op.unsupported, __LINE__);

    bool tiled = dst->tileInfo != nullptr;
    for (int i = 0; i < op.nSrc; ++i) tiled |= src[i]->tileInfo != nullptr;
    if (!tiled) {
        worker(args);
    } else {
        runTileWalk(op, worker, args);
    }
}

bool flatPathApplies(const LineArgs& args, int nSrc) {
    // Padding is written only over whole untiled images; a tile's padding
    // belongs to the application.
    if (args.mask != nullptr || args.inTileWalk || !args.flatPath) return false;
    for (int i = 0; i < nSrc; ++i) {
        if (!ownSameFlatLayout(args.src[i], args.dst, args.plan.hasAlpha)) return false;
    }
    return true;
}

bool setUpWalk(const LineArgs& args, int nSrc, Walk* walk) {
    const Plan& plan = args.plan;
    const KuvImage* images[3] = {args.src[0], nSrc == 2 ? args.src[1] : nullptr, args.dst};
    int32_t width = INT32_MAX, height = INT32_MAX;
    for (int i = 0; i < 3; ++i) {
        WalkImage& w = walk->img[i];
        const KuvImage* image = images[i];
        if (image == nullptr) {
            w = WalkImage{nullptr, 0, 0, 0};
            continue;
        }
        int32_t iw = 0, ih = 0, bitOffset = 0;
        w.start = ownGetPixelRect(image, &iw, &ih, plan.ch[i], &bitOffset);
        w.rowStep = image->widthStep;
        w.planeStep = static_cast<ptrdiff_t>(image->widthStep) * image->height;
        w.pixelStride = image->dataOrder == KUV_DATA_ORDER_PIXEL ? image->nChannels : 1;
        if (iw < width) width = iw;
        if (ih < height) height = ih;
    }
    walk->maskStart = nullptr;
    walk->maskStep = 0;
    walk->maskBitOffset = 0;
    if (args.mask != nullptr) {
        int32_t mw = 0, mh = 0, bitOffset = 0;
        walk->maskStart = reinterpret_cast<const uint8_t*>(
            ownGetPixelRect(args.mask, &mw, &mh, 0, &bitOffset));
        walk->maskStep = args.mask->widthStep;
        walk->maskBitOffset = bitOffset;
        if (mw < width) width = mw;
        if (mh < height) height = mh;
    }
    walk->width = width;
    walk->height = height;
    if (width <= 0 || height <= 0) return false;

    if (args.dst->dataOrder == KUV_DATA_ORDER_PLANE) {
        walk->shape = WALK_PLANES;
        walk->nPlanes = plan.nCh;
        walk->nCh = 1;
    } else if (!plan.allChannels) {
        walk->shape = WALK_STRIDED;
        walk->nPlanes = 1;
        walk->nCh = 1;
    } else {
        walk->shape = plan.hasAlpha ? WALK_GROUPS : WALK_RUN;
        walk->nPlanes = 1;
        walk->nCh = plan.nCh;
    }
    return true;
}

}  // namespace kuv
