#include "translationcenter.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QStringList>
#include <QTranslator>

namespace {

QStringList searchDirectories()
{
    QStringList dirs;
    const QString fromEnvironment = qEnvironmentVariable("KELDA_TRANSLATIONS_DIR");
    if (!fromEnvironment.isEmpty())
        dirs << fromEnvironment;
    if (QCoreApplication::instance())
        dirs << QCoreApplication::applicationDirPath() + QStringLiteral("/translations");
    dirs << QLibraryInfo::location(QLibraryInfo::TranslationsPath);
    return dirs;
}

} // namespace

TranslationCenter *TranslationCenter::Instance()
{
    static TranslationCenter instance;
    return &instance;
}

TranslationCenter::~TranslationCenter()
{
    // At process exit the application (and its translator list) may already be
    // gone; the translators are only freed.
    for (const Catalogue &catalogue : qAsConst(m_catalogues))
        delete catalogue.translator;
}

void TranslationCenter::Install(Catalogue &catalogue)
{
    if (!catalogue.installed && QCoreApplication::instance())
        catalogue.installed = QCoreApplication::installTranslator(catalogue.translator);
}

bool TranslationCenter::Register(const QString &name)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    auto existing = m_catalogues.find(name);
    if (existing != m_catalogues.end()) {
        Install(*existing);
        return true;
    }
    auto *translator = new QTranslator;
    for (const QString &dir : searchDirectories()) {
        if (translator->load(QLocale(), name, QStringLiteral("_"), dir, QStringLiteral(".qm"))) {
            Catalogue catalogue{translator, false};
            Install(catalogue);
            m_catalogues.insert(name, catalogue);
            return true;
        }
    }
    delete translator;
    return false;
}

void TranslationCenter::Unregister(const QString &name)
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    const Catalogue catalogue = m_catalogues.take(name);
    if (!catalogue.translator)
        return;
    if (catalogue.installed && QCoreApplication::instance())
        QCoreApplication::removeTranslator(catalogue.translator);
    delete catalogue.translator;
}

bool TranslationCenter::IsRegistered(const QString &name) const
{
    const std::lock_guard<std::mutex> lock(m_mutex);
    return m_catalogues.contains(name);
}
