#pragma once

#include "baseglobal.h"
#include "errorhandler.h"

#include <QString>

// The host framework's trace and assertion entry points.
FRAMEWORKBASE_EXPORT void _Q_Trace(const QString &text, const char *sourceFile, int line);
// Reports a failed assumption as a trace line; never aborts.
FRAMEWORKBASE_EXPORT void _Q_assert(const char *text, const char *sourceFile, int line);

// One-line trace call sites. The level is tested before the text expression is
// evaluated, so nothing is formatted while the bit is off.
#define Q_TRACE_LEVEL(level, source, text)                                                                             \
    do {                                                                                                               \
        if (ErrorHandler::Instance()->IsEnabled(level))                                                                \
            _Q_Trace((text), (source), __LINE__);                                                                      \
    } while (false)

#define Q_TRACE_FAILURE(source, text) Q_TRACE_LEVEL(ErrorHandler::Failure, source, text)
#define Q_TRACE_DETAIL(source, text) Q_TRACE_LEVEL(ErrorHandler::Detail, source, text)

#define Q_ASSERT_REPORT(cond, source)                                                                                  \
    do {                                                                                                               \
        if (!(cond))                                                                                                   \
            _Q_assert(#cond, (source), __LINE__);                                                                      \
    } while (false)
