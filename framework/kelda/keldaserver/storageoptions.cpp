#include "storageoptions.h"

#include "serveroptions.h"

#include <QCommandLineParser>
#include <QDir>

namespace Kelda {

namespace {

const QString kFolder = QStringLiteral("DIR");

} // namespace

StorageOptions::StorageOptions(const Help &help, const QString &databaseValue)
    : m_basePath(QStringLiteral("base-path"), help.basePath, kFolder)
    , m_database(QStringLiteral("db"), help.database, databaseValue)
    , m_nasPath(QStringLiteral("nas-path"), help.nasPath, kFolder)
    , m_exchangePath(QStringLiteral("exchange-path"), help.exchangePath, kFolder)
{ }

void StorageOptions::addTo(QCommandLineParser &parser) const
{
    for (const QCommandLineOption *option : {&m_basePath, &m_database, &m_nasPath, &m_exchangePath}) {
        if (!option->description().isEmpty())
            parser.addOption(*option);
    }
}

QString StorageOptions::givenBasePath(const QCommandLineParser &parser) const
{
    return given(parser, m_basePath) ? parser.value(m_basePath) : ServerOptions::defaultBasePath();
}

QString StorageOptions::database(const QCommandLineParser &parser, const QString &basePath) const
{
    return given(parser, m_database) ? parser.value(m_database) : ServerOptions::defaultDatabaseFile(basePath);
}

QString StorageOptions::nasPath(const QCommandLineParser &parser, const QString &basePath) const
{
    return folder(parser, m_nasPath, ServerOptions::defaultNasPath(basePath));
}

QString StorageOptions::exchangePath(const QCommandLineParser &parser, const QString &basePath) const
{
    return folder(parser, m_exchangePath, ServerOptions::defaultExchangePath(basePath));
}

QString StorageOptions::absolutePath(const QString &path)
{
    return QDir::cleanPath(QDir(path).absolutePath());
}

// An option left out was never added to the parser, which would warn of it.
bool StorageOptions::given(const QCommandLineParser &parser, const QCommandLineOption &option)
{
    return !option.description().isEmpty() && parser.isSet(option);
}

QString StorageOptions::folder(const QCommandLineParser &parser, const QCommandLineOption &option,
                               const QString &fallback)
{
    return given(parser, option) ? absolutePath(parser.value(option)) : fallback;
}

} // namespace Kelda
