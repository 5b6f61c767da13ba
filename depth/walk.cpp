// The depth family's piece walk over plain and tiled images.
#include "core/platform.h"
#include "depth/depth.h"

#include <algorithm>

namespace kuv::depth {
namespace {

int levelOf(unsigned features) {
    // The AVX-512 workers use the byte permutes too; a processor without them
    // runs the AVX2 workers.
    if ((features & OWN_CPU_AVX512) && (features & OWN_CPU_AVX512VBMI)) return LEVEL_AVX512;
    if (features & OWN_CPU_AVX2) return LEVEL_AVX2;
    return LEVEL_BASE;
}

// Read at load, before any test could withhold a feature.
const int machineLevel = levelOf(ownPlatformCpuFeatures());

// One image of the walk with its layout and the tile it holds.
struct Cursor {
    const WalkImage* place = nullptr;
    const KuvImage* image = nullptr;
    bool tiled = false;
    int32_t tileW = 0, tileH = 0;
    int64_t step = 0, planeStep = 0;
    int32_t bits = 0;
    int32_t mode = KUV_TILE_READ;
    const char* nullText = nullptr;
    bool held = false;
    int32_t col = 0, row = 0;
    char* tile = nullptr;

    void setUp(const WalkImage& w, int32_t tileMode, const char* text) {
        place = &w;
        image = w.image;
        mode = tileMode;
        nullText = text;
        bits = ownDepthBits(image->depth);
        tiled = image->tileInfo != nullptr;
        if (tiled) {
            tileW = image->tileInfo->width;
            tileH = image->tileInfo->height;
            step = ownRowBytes(image->dataOrder, image->depth, image->align, image->nChannels,
                               tileW);
            planeStep = step * tileH;
        } else {
            step = image->widthStep;
            planeStep = step * image->height;
        }
    }

    // Stored row of walk row i.
    int32_t rowOf(int32_t i, int32_t height) const {
        return place->flip ? place->y + height - 1 - i : place->y + i;
    }

    // Rows from walk row i that stay inside the current tile row.
    int32_t bandRoom(int32_t i, int32_t height) const {
        if (!tiled) return INT32_MAX;
        const int32_t r = rowOf(i, height);
        const int32_t top = r / tileH * tileH;
        return place->flip ? r - top + 1 : top + tileH - r;
    }

    int32_t spanRoom(int32_t j) const {
        if (!tiled) return INT32_MAX;
        const int32_t c = place->x + j;
        return c / tileW * tileW + tileW - c;
    }

    void release() {
        if (!held) return;
        KuvTileInfo* info = image->tileInfo;
        info->tileData = tile;   // the procedure finds the tile it is handed back
        info->callBack(image, col, row, KUV_TILE_RELEASE);
        held = false;
        tile = nullptr;
    }

    enum Fetch { KEPT, GRANTED, REFUSED };

    // Makes sure that the tile of (walk row i, column j) is held.
    Fetch fetch(int32_t i, int32_t j, int32_t height) {
        if (!tiled) return KEPT;
        const int32_t wantRow = rowOf(i, height) / tileH;
        const int32_t wantCol = (place->x + j) / tileW;
        if (held && wantRow == row && wantCol == col) return KEPT;
        release();
        KuvTileInfo* info = image->tileInfo;
        info->callBack(image, wantCol, wantRow, mode);
        if (info->tileData == nullptr) return REFUSED;
        tile = info->tileData;
        col = wantCol;
        row = wantRow;
        held = true;
        return GRANTED;
    }

    Side sideAt(int32_t i, int32_t j, int32_t height) const {
        int64_t r = rowOf(i, height);
        int64_t c = place->x + j;
        char* data = image->imageData;
        if (tiled) {
            r -= int64_t{row} * tileH;
            c -= int64_t{col} * tileW;
            data = tile;
        }
        const bool plane = image->dataOrder == KUV_DATA_ORDER_PLANE;
        int64_t offset = r * step;
        Side side{};
        if (plane) {
            offset += place->channel * planeStep + c * bits / 8;
            side.chanStep = static_cast<ptrdiff_t>(planeStep);
            side.pixStep = 1;
        } else {
            offset += (c * image->nChannels + place->channel) * bits / 8;
            side.chanStep = bits / 8;
            side.pixStep = image->nChannels;
        }
        side.base = data + offset;
        side.rowStep = static_cast<ptrdiff_t>(place->flip ? -step : step);
        side.bitOffset = bits == 1 ? static_cast<int32_t>(c & 7) : 0;
        return side;
    }
};

}  // namespace

int vectorLevel() { return levelOf(ownPlatformCpuFeatures()); }

int machineVectorLevel() { return machineLevel; }

void setVectorLevel(int level) {
    const unsigned upTo[kVectorLevels] = {0u, OWN_CPU_AVX2 | OWN_CPU_FMA, ~0u};
    ownPlatformLimitFeatures(level >= machineLevel ? ~0u : upTo[level < LEVEL_BASE ? LEVEL_BASE : level]);
}

bool runWalk(const Walk& walk, PieceWorker worker, const void* param, void* state) {
    Cursor src, dst;
    const bool twoImages = walk.dst.image != nullptr;
    src.setUp(walk.src, KUV_TILE_READ, "(srcImage->tileInfo->tileData == NULL)");
    if (twoImages) dst.setUp(walk.dst, KUV_TILE_WRITE, "(dstImage->tileInfo->tileData == NULL)");
    Cursor* order[2] = {twoImages ? &dst : nullptr, &src};

    auto stop = [&](const char* text, int line) {
        if (text != nullptr) kuvError(KUV_StsBadArgument, walk.func, text, walk.file, line);
        for (Cursor* cursor : order) {
            if (cursor != nullptr) cursor->release();
        }
        return false;
    };

    Job job{};
    job.nCh = walk.nCh;
    job.param = param;
    job.state = state;
    const int32_t height = walk.height, width = walk.width;
    for (int32_t i = 0; i < height;) {
        int32_t band = height - i;
        for (Cursor* cursor : order) {
            if (cursor != nullptr) band = std::min(band, cursor->bandRoom(i, height));
        }
        for (int32_t j = 0; j < width;) {
            int32_t span = width - j;
            for (Cursor* cursor : order) {
                if (cursor == nullptr) continue;
                span = std::min(span, cursor->spanRoom(j));
                const Cursor::Fetch got = cursor->fetch(i, j, height);
                if (got == Cursor::REFUSED) return stop(cursor->nullText, __LINE__);
                // kuvScale lets a tile procedure stop it by a status of its own.
                if (got == Cursor::GRANTED && walk.stopOnStatus && kuvGetErrStatus() < 0) {
                    return stop(nullptr, 0);
                }
            }
            job.src = src.sideAt(i, j, height);
            if (twoImages) job.dst = dst.sideAt(i, j, height);
            job.width = span;
            job.height = band;
            worker(job);
            j += span;
        }
        i += band;
    }
    stop(nullptr, 0);
    return true;
}

}  // namespace kuv::depth
