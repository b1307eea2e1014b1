#include "translationcenter.h"

#include <QCoreApplication>
#include <QLibraryInfo>
#include <QLocale>
#include <QMutexLocker>
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
    qDeleteAll(m_translators);
}

bool TranslationCenter::Register(const QString &name)
{
    QMutexLocker lock(&m_mutex);
    if (m_translators.contains(name))
        return true;
    auto *translator = new QTranslator;
    for (const QString &dir : searchDirectories()) {
        if (translator->load(QLocale(), name, QStringLiteral("_"), dir, QStringLiteral(".qm"))) {
            if (QCoreApplication::instance())
                QCoreApplication::installTranslator(translator);
            m_translators.insert(name, translator);
            return true;
        }
    }
    delete translator;
    return false;
}

void TranslationCenter::Unregister(const QString &name)
{
    QMutexLocker lock(&m_mutex);
    QTranslator *translator = m_translators.take(name);
    if (!translator)
        return;
    if (QCoreApplication::instance())
        QCoreApplication::removeTranslator(translator);
    delete translator;
}

bool TranslationCenter::IsRegistered(const QString &name) const
{
    QMutexLocker lock(&m_mutex);
    return m_translators.contains(name);
}
