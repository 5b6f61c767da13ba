// Tile walk: bands cut by the shortest tile, spans by the narrowest, one
// worker call per piece, every granted tile handed back at the band's end.
#include "core/tilewalk.h"

namespace kuv {
namespace {

// Image slots in the order of the tile requests: sources, mask, destination.
enum Slot : int { SLOT_SRC_A = 0, SLOT_SRC_B, SLOT_MASK, SLOT_DST, SLOT_COUNT };

const char* const failTextTwo[SLOT_COUNT] = {
    "(srcImageA->tileInfo->tileData == ((void*)(0)))",
    "(srcImageB->tileInfo->tileData == ((void*)(0)))", nullptr,
    "(dstImage->tileInfo->tileData == ((void*)(0)))"};
const char* const failTextOne[SLOT_COUNT] = {
    "(srcImage->tileInfo->tileData == ((void*)(0)))", nullptr, nullptr,
    "(dstImage->tileInfo->tileData == ((void*)(0)))"};
const char* const keptTextOne[SLOT_COUNT] = {
    "(srcImage->tileInfo->tileData != ((void*)(0)))", nullptr, nullptr,
    "(dstImage->tileInfo->tileData != ((void*)(0)))"};

struct Piece {
    bool active = false;
    const KuvImage* image = nullptr;   // the application's record, for its procedure
    KuvImage work{};
    KuvROI roi{};
    OwnRect rect{};
    int32_t endX = 0, endY = 0, curX = 0, curY = 0;
    OwnTileCursor cursor{};
    char* tile = nullptr;   // the tile this piece holds now
    int32_t mode = KUV_TILE_READ;
};

// Asks for a tile; the image's working header then addresses it.
bool request(Piece& p) {
    KuvTileInfo* info = p.image->tileInfo;
    info->callBack(p.image, p.cursor.col, p.cursor.row, p.mode);
    p.tile = info->tileData;
    p.work.imageData = p.tile;
    return p.tile != nullptr;
}

// Hands a tile back; false when the procedure left tileData set and the
// operation insists that a released tile is gone.
bool release(Piece& p, bool checkRelease) {
    KuvTileInfo* info = p.image->tileInfo;
    info->tileData = p.tile;   // the procedure finds the tile it is handed back
    info->callBack(p.image, p.cursor.col, p.cursor.row, KUV_TILE_RELEASE);
    p.tile = nullptr;
    return !checkRelease || info->tileData == nullptr;
}

}  // namespace

void runTileWalk(const PatternOp& op, LineWorker worker, const LineArgs& args) {
    const char* const* failText = op.nSrc == 2 ? failTextTwo : failTextOne;
    Piece pieces[SLOT_COUNT];
    const KuvImage* images[SLOT_COUNT] = {args.src[0], op.nSrc == 2 ? args.src[1] : nullptr,
                                          args.mask, args.dst};
    // Set-up in the order mask, destination, sources.
    const int setUpOrder[SLOT_COUNT] = {SLOT_MASK, SLOT_DST, SLOT_SRC_A, SLOT_SRC_B};
    int32_t height = INT32_MAX, width = INT32_MAX;
    for (int slot : setUpOrder) {
        const KuvImage* image = images[slot];
        if (image == nullptr) continue;
        if (slot != SLOT_DST && slot != SLOT_MASK && image == args.dst) continue;
        Piece& p = pieces[slot];
        p.active = true;
        p.image = image;
        p.work = *image;
        p.roi = KuvROI{image->roi != nullptr ? image->roi->coi : 0, 0, 0, 0, 0};
        p.work.roi = &p.roi;
        p.work.maskROI = nullptr;
        ownGetROIRect(image, &p.rect);
        if (p.rect.height < height) height = p.rect.height;
        if (p.rect.width < width) width = p.rect.width;
        p.mode = slot == SLOT_DST ? KUV_TILE_WRITE : KUV_TILE_READ;
    }
    if (height <= 0 || width <= 0) return;   // nothing in common: no tile is asked for
    for (Piece& p : pieces) {
        if (!p.active) continue;
        p.endX = p.rect.x + width;
        p.endY = p.rect.y + height;
        ownInitTileWalk(p.image, &p.work, p.rect, &p.cursor);
        p.curY = p.rect.y;
    }

    LineArgs call = args;
    call.inTileWalk = true;
    call.dst = &pieces[SLOT_DST].work;
    call.mask = pieces[SLOT_MASK].active ? &pieces[SLOT_MASK].work : nullptr;
    for (int i = 0; i < 2; ++i) {
        const int slot = i == 0 ? SLOT_SRC_A : SLOT_SRC_B;
        if (images[slot] == nullptr) continue;
        call.src[i] = pieces[slot].active ? &pieces[slot].work : &pieces[SLOT_DST].work;
    }

    const int walkOrder[SLOT_COUNT] = {SLOT_SRC_A, SLOT_SRC_B, SLOT_MASK, SLOT_DST};
    Piece& dst = pieces[SLOT_DST];
    auto failed = [&](int slot) {
        kuvError(KUV_StsBadArgument, op.func, failText[slot], op.file, __LINE__);
    };
    auto kept = [&](int slot) {
        kuvError(KUV_StsBadArgument, op.func, keptTextOne[slot], op.file, __LINE__);
    };

    while (dst.curY < dst.endY) {
        int32_t band = INT32_MAX;
        for (int slot : walkOrder) {
            Piece& p = pieces[slot];
            if (!p.active) continue;
            int32_t top = p.curY, bottom = p.endY;
            if (p.cursor.tiled) {
                int32_t row = p.cursor.row;
                if (p.curY >= p.cursor.bottom) ++row;
                ownTileCursorMove(&p.cursor, p.cursor.firstCol, row);
                if (!request(p)) return failed(slot);
                top = p.curY - p.cursor.top;
                if (p.cursor.bottom < bottom) bottom = p.cursor.bottom;
                bottom -= p.curY;
            } else {
                bottom -= p.curY;
            }
            p.roi.yOffset = top;
            p.roi.height = bottom;
            if (bottom < band) band = bottom;
        }
        for (Piece& p : pieces) {
            if (!p.active) continue;
            p.roi.height = band;
            p.curX = p.rect.x;
        }
        while (dst.curX < dst.endX) {
            int32_t span = INT32_MAX;
            for (int slot : walkOrder) {
                Piece& p = pieces[slot];
                if (!p.active) continue;
                int32_t right = p.endX;
                if (p.cursor.tiled) {
                    if (p.curX >= p.cursor.right) {
                        if (!release(p, op.checkRelease)) return kept(slot);
                        ownTileCursorMove(&p.cursor, p.cursor.col + 1, p.cursor.row);
                        if (!request(p)) return failed(slot);
                    }
                    p.roi.xOffset = p.curX - p.cursor.left;
                    if (p.cursor.right < right) right = p.cursor.right;
                } else {
                    p.roi.xOffset = p.curX;
                }
                p.roi.width = right - p.curX;
                if (p.roi.width < span) span = p.roi.width;
            }
            for (Piece& p : pieces) {
                if (!p.active) continue;
                p.roi.width = span;
            }
            worker(call);
            for (Piece& p : pieces) {
                if (p.active) p.curX += span;
            }
        }
        for (int slot : walkOrder) {
            Piece& p = pieces[slot];
            if (p.active && p.cursor.tiled && !release(p, op.checkRelease)) return kept(slot);
        }
        for (Piece& p : pieces) {
            if (p.active) p.curY += band;
        }
    }
}

}  // namespace kuv

void ownTileCursorMove(OwnTileCursor* cursor, int32_t col, int32_t row) {
    cursor->col = col;
    cursor->row = row;
    cursor->left = col * cursor->tileWidth;
    cursor->right = cursor->left + cursor->tileWidth;
    cursor->top = row * cursor->tileHeight;
    cursor->bottom = cursor->top + cursor->tileHeight;
}

void ownInitTileWalk(const KuvImage* image, KuvImage* work, const OwnRect& rect,
                     OwnTileCursor* cursor) {
    *cursor = OwnTileCursor{};
    if (image->tileInfo == nullptr) {
        cursor->tiled = false;
        work->width = image->width;
        work->height = image->height;
        work->imageData = image->imageData;
        return;
    }
    const KuvTileInfo* info = image->tileInfo;
    cursor->tiled = true;
    cursor->tileWidth = info->width;
    cursor->tileHeight = info->height;
    const int32_t step = ownRowBytes(image->dataOrder, image->depth, image->align,
                                     image->nChannels, info->width);
    work->tileInfo = nullptr;
    work->widthStep = step;
    work->width = info->width;
    work->height = info->height;
    work->imageSize = step * info->height *
                      (image->dataOrder == KUV_DATA_ORDER_PLANE ? image->nChannels : 1);
    work->imageData = nullptr;
    cursor->firstCol = rect.x / info->width;
    cursor->firstRow = rect.y / info->height;
    ownTileCursorMove(cursor, cursor->firstCol, cursor->firstRow);
}
