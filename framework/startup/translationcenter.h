#pragma once

#include "startupglobal.h"

#include <QMap>
#include <QString>

#include <mutex>

class QTranslator;

// The host framework's translation registry. Register loads the catalogue
// <name>_<locale>.qm for the current locale from the directory named by
// KELDA_TRANSLATIONS_DIR, the "translations" folder beside the executable, or
// Qt's translation directory, and installs it in the application. A catalogue
// that does not exist is not an error: the English source texts stay.
class FRAMEWORKSTARTUP_EXPORT TranslationCenter
{
public:
    static TranslationCenter *Instance();

    // True when a catalogue was found. One registered before the application
    // object exists is installed by the first Register call after it does.
    bool Register(const QString &name);
    void Unregister(const QString &name);
    bool IsRegistered(const QString &name) const;

private:
    TranslationCenter() = default;
    ~TranslationCenter();
    TranslationCenter(const TranslationCenter &) = delete;
    TranslationCenter &operator=(const TranslationCenter &) = delete;

    struct Catalogue
    {
        QTranslator *translator = nullptr;
        bool installed = false;
    };
    static void Install(Catalogue &catalogue);

    mutable std::mutex m_mutex;
    QMap<QString, Catalogue> m_catalogues;
};
