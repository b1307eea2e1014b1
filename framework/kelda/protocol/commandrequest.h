#pragma once

#include "commanddescriptors.h"
#include "keldaclientsoapmessage.h"

#include <QDateTime>
#include <QString>
#include <QStringList>

#include <array>

namespace Kelda {

// A request as its descriptor describes it. Each field keeps the texts it
// is written as; ToXml() writes the fields in the descriptor's order and
// shape, an unset one with its shape's empty value. A field that takes the
// request's GUID or application reads and sets those of the base class.
//
// The setters name a field of the descriptor; a name it does not have is a
// mistake of the caller and changes nothing.
class CommandRequest : public KeldaClientSOAPMessage
{
public:
    explicit CommandRequest(ReplyKind kind);

    ReplyKind Kind() const { return m_kind; }
    const CommandDescriptor &Command() const { return Descriptor(m_kind); }

    QByteArray ToXml() const final;
    void Clear() override;

    CommandRequest &SetText(QLatin1String field, const QString &text);
    CommandRequest &SetNumber(QLatin1String field, qint64 value);
    CommandRequest &SetUnsigned(QLatin1String field, quint64 value);
    CommandRequest &SetFlag(QLatin1String field, bool value);
    // Converted to UTC; an unset time is written empty.
    CommandRequest &SetTime(QLatin1String field, const QDateTime &value);
    // A Repeated or List field: one text per value.
    CommandRequest &SetTexts(QLatin1String field, const QStringList &texts);
    CommandRequest &SetTimeRange(QLatin1String field, const QDateTime &min, const QDateTime &max);

    // The text of a field as the caller gave it (a Fixed field's too) or as
    // it will be written.
    QString FieldText(QLatin1String field) const;
    // The descriptor's send trace with the texts of its fields; empty when
    // the command traces nothing.
    QString SendTrace() const;

private:
    using Values = std::array<QStringList, RequestFields::Capacity>;

    void SetValues(QLatin1String field, QStringList texts);
    QStringList ValuesOf(int index) const;
    static void WriteField(QXmlStreamWriter &writer, const RequestField &field, const QStringList &values);

    ReplyKind m_kind;
    Values m_values;
};

} // namespace Kelda
