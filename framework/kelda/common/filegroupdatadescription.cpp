#include "filegroupdata.h"
#include "filegroupdata_p.h"

#include <trace.h>

#include <QDir>
#include <QFile>
#include <QXmlStreamReader>
#include <QXmlStreamWriter>

// The record as a ".fgdesc" file beside exported data: the XML element in a
// file of its own.
namespace Kelda {

namespace {

const char *const kSource = FileGroupDataPrivate::TraceSource;

const QLatin1String kDescriptionFileSuffix(".fgdesc");

} // namespace

QString FileGroupData::toXmlFileForExport(const QString &dir) const
{
    QByteArray bytes;
    {
        QXmlStreamWriter writer(&bytes);
        ToHtml(writer, true, true);
    }
    // Made on a system that joins with a backslash; the platform separator
    // reaches the same directory and leaves the file name untouched.
    const QString directory = dir + QDir::separator();
    const QString baseName = d->fileGroupName + QStringLiteral("_%1").arg(d->guid);
    QString fileName = baseName + kDescriptionFileSuffix;
    for (int n = 1; QFile::exists(directory + fileName); ++n)
        fileName = baseName + QStringLiteral("_%1").arg(n) + kDescriptionFileSuffix;

    QFile file(directory + fileName);
    if (!file.open(QIODevice::WriteOnly | QIODevice::NewOnly)) {
        Q_TRACE_FAILURE(kSource,
                        QStringLiteral("Could not create Xml file for export of "
                                       "filegroup %1 with guid %2")
                            .arg(d->fileGroupName, d->guid));
        return fileName;
    }
    file.write(bytes);
    file.close();
    return fileName;
}

bool FileGroupData::fromXmlforImport(const QString &fileName)
{
    QFile file(fileName);
    if (!file.exists() || !file.open(QIODevice::ReadOnly)) {
        Q_TRACE_FAILURE(kSource, QStringLiteral("Could not open filegroup file %1 for import").arg(fileName));
        return false;
    }
    const QByteArray bytes = file.readAll();
    file.close();
    QXmlStreamReader reader(bytes);
    return FromHtml(reader) == KE_NoError;
}

} // namespace Kelda
