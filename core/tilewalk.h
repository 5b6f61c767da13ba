// The walk that cuts a pattern operation over tiled images into pieces that
// lie inside one tile of every image.
#ifndef KUV_CORE_TILEWALK_H
#define KUV_CORE_TILEWALK_H

#include "core/pattern.h"

namespace kuv {

// Calls worker once per piece, with working copies of the headers in place
// of those in args. Reports a failed tile request under op's names.
void runTileWalk(const PatternOp& op, LineWorker worker, const LineArgs& args);

}  // namespace kuv

#endif
