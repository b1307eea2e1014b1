#pragma once

#include <QByteArray>
#include <QHash>
#include <QLatin1String>
#include <QString>
#include <QStringList>

namespace Kelda {

// One request as the server reads it: the body's command element, the
// header's request id and the texts of the command's children.
//
// Children are keyed by local name; a child of a child (the Min and Max of a
// time range, the FileType entries of a FileTypeList) by "Parent/Child".
// Repeated children keep every value in arrival order.
struct Request
{
    QString command;
    QString requestId;
    QHash<QString, QStringList> fields;

    bool has(const QString &key) const { return fields.contains(key); }
    // The first value, or an empty text when the child is absent.
    QString text(const QString &key) const;
    QStringList texts(const QString &key) const { return fields.value(key); }
    // Decimal value of the first value; fallback when absent or not a number.
    qint64 number(const QString &key, qint64 fallback = 0) const;
    // "true" (any case) or "1" is true; everything else false.
    bool flag(const QString &key) const;
};

// "Parent/Child", the key of a nested child.
inline QString nestedKey(QLatin1String parent, QLatin1String child)
{
    return parent + QLatin1Char('/') + child;
}

// Reads a request document. Never throws; a document that does not read
// gives ok false, the reason, and whatever was learnt before the fault (the
// command and request id, when they came first), so that an error reply can
// still be addressed.
class RequestReader
{
public:
    struct Result
    {
        bool ok = false;
        QString error;
        Request request;
    };

    // maxMarkup > 0 bounds the elements and attributes a document may hold
    // (and refuses document type declarations) before the XML reader sees
    // it, so that the reader's work stays in proportion to the document
    // whatever its shape. A refused document still gives its command and
    // request id when they come before the fault.
    static Result read(const QByteArray &document, int maxMarkup = 0);

    // Attributes one element may carry under a markup bound; the XML
    // reader compares each attribute with those before it.
    static constexpr int MaxAttributesPerElement = 64;
};

} // namespace Kelda
