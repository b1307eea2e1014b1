#pragma once

#include <QByteArray>

namespace Kelda {

// "yyyy-MM-dd hh:mm:ss" of a UTC instant in the server's local time: the
// form groups carry in replies. The same text as QDateTime's, for a fraction
// of its cost; a query over a large archive writes four per group.
QByteArray localTimeText(qint64 utcMilliseconds);

} // namespace Kelda
