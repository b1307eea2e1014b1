#include "cfgcenter.h"

#include "icfg.h"

#include <QCoreApplication>
#include <QFileInfo>
#include <QSettings>
#include <QStandardPaths>

ICfg::~ICfg() = default;

namespace {

const char kConfigFileVariable[] = "KELDA_CONFIG_FILE";
const QString kAdminGroup = QStringLiteral("Admin");

class SettingsCfg final : public ICfg
{
public:
    SettingsCfg(const QString &file, const QString &group)
        : m_settings(file, QSettings::IniFormat)
    {
        m_settings.beginGroup(group);
    }

    bool HasKey(const QString &key, int) const override { return m_settings.contains(key); }

    QString GetString(const QString &key, const QString &defaultValue) const override
    {
        return m_settings.value(key, defaultValue).toString();
    }

    int GetInt(const QString &key, int defaultValue) const override
    {
        bool ok = false;
        const int value = m_settings.value(key, defaultValue).toInt(&ok);
        return ok ? value : defaultValue;
    }

    bool GetBool(const QString &key, bool defaultValue, int) const override
    {
        const QVariant value = m_settings.value(key);
        if (!value.isValid())
            return defaultValue;
        const QString text = value.toString().trimmed().toLower();
        if (text == QLatin1String("true") || text == QLatin1String("1") || text == QLatin1String("yes"))
            return true;
        if (text == QLatin1String("false") || text == QLatin1String("0") || text == QLatin1String("no"))
            return false;
        return defaultValue;
    }

    void SetInt(const QString &key, int value) override { m_settings.setValue(key, value); }

    void Flush(const QString &, int) override { m_settings.sync(); }

private:
    QSettings m_settings;
};

} // namespace

QString CfgCenter::ConfigFilePath()
{
    const QString path = qEnvironmentVariable(kConfigFileVariable);
    if (!path.isEmpty())
        return path;
    return QStandardPaths::writableLocation(QStandardPaths::GenericConfigLocation) + QStringLiteral("/kelda/kelda.ini");
}

ICfg *CfgCenter::CreateCfg(const QString &group, View, const QString &)
{
    return new SettingsCfg(ConfigFilePath(), group);
}

ICfg *CfgCenter::GetAdminCfg(View)
{
    return new SettingsCfg(ConfigFilePath(), kAdminGroup);
}

QString CfgCenter::GetAppName()
{
    QString name = QCoreApplication::applicationName();
    if (name.isEmpty())
        name = QFileInfo(QCoreApplication::applicationFilePath()).baseName();
    return name;
}
