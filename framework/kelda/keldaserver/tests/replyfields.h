#pragma once

#include <QByteArray>
#include <QHash>
#include <QString>
#include <QStringList>

// A reply document as tests look at it: its error code and the texts of
// the body's leaf elements by local name, in document order.
struct ReplyFields
{
    int error = -1;
    QHash<QString, QStringList> values;

    QString value(const QString &name) const { return values.value(name).value(0); }
    QStringList all(const QString &name) const { return values.value(name); }

    static ReplyFields read(const QByteArray &document);
};
