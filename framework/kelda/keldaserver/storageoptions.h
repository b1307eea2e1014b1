#pragma once

#include <QCommandLineOption>
#include <QString>

class QCommandLineParser;

namespace Kelda {

// The options that place an archive, alike for keldaserver and its audit,
// backup and restore commands: --base-path, --db, --nas-path and
// --exchange-path, with their defaults below the base path. Each command
// words the help of the options itself.
class StorageOptions
{
public:
    // An empty text leaves its option out.
    struct Help
    {
        QString basePath;
        QString database;
        QString nasPath;
        QString exchangePath;
    };

    // databaseValue names what --db takes in the help: FILE, or FILE|URL
    // where a PostgreSQL URL is taken too.
    StorageOptions(const Help &help, const QString &databaseValue);

    // Adds the options, in the order above.
    void addTo(QCommandLineParser &parser) const;

    // --base-path as given, else the per-user default; not yet absolute, so
    // that an empty one can be refused.
    QString givenBasePath(const QCommandLineParser &parser) const;
    // --db as given, else the SQLite file below basePath.
    QString database(const QCommandLineParser &parser, const QString &basePath) const;
    // Absolute, else the folder of that name below basePath.
    QString nasPath(const QCommandLineParser &parser, const QString &basePath) const;
    QString exchangePath(const QCommandLineParser &parser, const QString &basePath) const;

    static QString absolutePath(const QString &path);

private:
    static bool given(const QCommandLineParser &parser, const QCommandLineOption &option);
    static QString folder(const QCommandLineParser &parser, const QCommandLineOption &option, const QString &fallback);

    const QCommandLineOption m_basePath;
    const QCommandLineOption m_database;
    const QCommandLineOption m_nasPath;
    const QCommandLineOption m_exchangePath;
};

} // namespace Kelda
