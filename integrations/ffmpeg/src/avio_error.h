/*
 * The library's numbers of failures as FFmpeg's.
 */
#ifndef MDCH_AVIO_ERROR_H
#define MDCH_AVIO_ERROR_H

#include "mdch_avio.h"

namespace avio {

/*
 * error: a number of docs/errors.md, not 0: positive as a stream's error() gives it, negative as an open does.
 * httpStatus: of the last response; negative: none has come.
 */
int averrorOf(int error, int httpStatus);

/* Whether a transfer that ended so may go well when it is taken up. */
bool isWorthAnotherTry(int averror);

} // namespace avio

#endif
