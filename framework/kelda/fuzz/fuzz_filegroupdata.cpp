// The file group record read from any XML, and its table form from any
// texts. The first input byte chooses the reading; the table form must
// survive a round trip through itself.

#include "filegroupdata.h"
#include "fuzzsupport.h"

#include <QStringList>
#include <QXmlStreamReader>

namespace {

void ReadXml(const QByteArray &bytes)
{
    QXmlStreamReader reader(bytes);
    Kelda::FileGroupData record;
    record.FromHtml(reader);
    QStringList row;
    record.ToStringList(row);
}

// Texts separated by line feeds, laid out as table rows.
void ReadTable(const QByteArray &bytes)
{
    const QStringList texts = QString::fromUtf8(bytes).split(QLatin1Char('\n'));
    const std::vector<Kelda::FileGroupData> records = Kelda::FileGroupData::fromStringList(texts);
    if (records.size() != size_t(texts.size() / 16))
        KeldaFuzz::Fail("fromStringList did not make one record per complete row");
    QStringList table;
    for (const Kelda::FileGroupData &record : records)
        record.ToStringList(table);
    const std::vector<Kelda::FileGroupData> again = Kelda::FileGroupData::fromStringList(table);
    QStringList tableAgain;
    for (const Kelda::FileGroupData &record : again)
        record.ToStringList(tableAgain);
    if (table != tableAgain)
        KeldaFuzz::Fail("the table form changed on a second round trip");
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    KeldaFuzz::EnsureApplication();
    const QByteArray rest = KeldaFuzz::Bytes(data + 1, size - 1);
    if (data[0] & 1)
        ReadTable(rest);
    else
        ReadXml(rest);
    return 0;
}
