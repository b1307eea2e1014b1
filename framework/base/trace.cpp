#include "trace.h"

void _Q_Trace(const QString &text, const char *sourceFile, int line)
{
    ErrorHandler::Instance()->Write(text, sourceFile, line);
}

void _Q_assert(const char *text, const char *sourceFile, int line)
{
    // An assertion is always reported, whatever the mask says: it marks a bug.
    ErrorHandler::Instance()->Write(QStringLiteral("ASSERT failed: %1").arg(QString::fromUtf8(text)), sourceFile, line);
}
