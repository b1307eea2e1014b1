#include "filetype.h"

#include <cfgcenter.h>
#include <icfg.h>
#include <trace.h>

#include <QObject>

#include <iterator>
#include <memory>

namespace Kelda {

namespace {

const char kSource[] = "framework/kelda/common/filetype";

const char *const kFileTypeTexts[] = {
    QT_TRANSLATE_NOOP("QObject", "Unknown"),
    QT_TRANSLATE_NOOP("QObject", "Transmission System (XML)"),
    QT_TRANSLATE_NOOP("QObject", "Transmission System (Text)"),
    QT_TRANSLATE_NOOP("QObject", "Transmission System (Binary)"),
    QT_TRANSLATE_NOOP("QObject", "Transmission System (Z2 XML)"),
    QT_TRANSLATE_NOOP("QObject", "Decoded Text (XML)"),
    QT_TRANSLATE_NOOP("QObject", "Decoded Text (Text)"),
    QT_TRANSLATE_NOOP("QObject", "Decoded Text (Z2 XML)"),
    QT_TRANSLATE_NOOP("QObject", "Scan Recording"),
    QT_TRANSLATE_NOOP("QObject", "IF Recording"),
    QT_TRANSLATE_NOOP("QObject", "Audio Recording"),
    QT_TRANSLATE_NOOP("QObject", "Image"),
    QT_TRANSLATE_NOOP("QObject", "Propagation Calculation Tool"),
    QT_TRANSLATE_NOOP("QObject", "Communication Network Diagram"),
    QT_TRANSLATE_NOOP("QObject", "Report File Reference List"),
    QT_TRANSLATE_NOOP("QObject", "Pelor Results"),
    QT_TRANSLATE_NOOP("QObject", "PCK File"),
    QT_TRANSLATE_NOOP("QObject", "RAD File"),
    QT_TRANSLATE_NOOP("QObject", "Report Fragment"),
    QT_TRANSLATE_NOOP("QObject", "Tovin IQ Recording"),
    QT_TRANSLATE_NOOP("QObject", "Technical Parameters"),
    QT_TRANSLATE_NOOP("QObject", "Shape Collections"),
    QT_TRANSLATE_NOOP("QObject", "Training Collections"),
};
static_assert(std::size(kFileTypeTexts) == FT_Last + 1, "one text per file type");

struct OfferSwitch
{
    FileType type;
    const char *key;
};

// Existing configurations use these keys; they do not follow the display
// texts. "PCK File" has no key: it can be stored but is never offered.
const OfferSwitch kOfferSwitches[] = {
    {FT_TransmissionSystem_XML, "Type_TransmissionSystem_XML"},
    {FT_TransmissionSystem_Text, "Type_TransmissionSystem_Text"},
    {FT_TransmissionSystem_Binary, "Type_TransmissionSystem_Binary"},
    {FT_TransmissionSystem_Z2_XML, "Type_TransmissionSystem_Z2_XML"},
    {FT_DecodedText_XML, "Type_DecodedText_XML"},
    {FT_DecodedText_Text, "Type_DecodedText_Text"},
    {FT_DecodedText_Z2_XML, "Type_DecodedText_Z2_XML"},
    {FT_ScanRecording, "Type_ScanRecording"},
    {FT_IfRecording, "Type_IfRecording"},
    {FT_AudioRecording, "Type_AudioRecording"},
    {FT_Image, "Type_Image"},
    {FT_MissionPlanningTool, "Type_MissionPlanningTool"},
    {FT_CND, "Type_CND"},
    {FT_Report_References, "Type_Report_References"},
    {FT_PelorResults, "Type_PelorResults"},
    {FT_RAD, "Type_RAD"},
    {FT_Report_Fragment, "Type_Report_Fragment"},
    {FT_Tovin_IqRecording, "Type_Tovin_IqRecording"},
    {FT_TechnicalParameters, "Type_TechnicalParameters"},
    {FT_ShapeCollections, "Type_ShapeCollections"},
    {FT_TrainingCollections, "Type_TrainingCollections"},
};

const char *const kLocationStateTexts[] = {
    QT_TRANSLATE_NOOP("QObject", "Undefined"),
    QT_TRANSLATE_NOOP("QObject", "Local"),
    QT_TRANSLATE_NOOP("QObject", "Central"),
    QT_TRANSLATE_NOOP("QObject", "Backup copy"),
    QT_TRANSLATE_NOOP("QObject", "Central not moved"),
    QT_TRANSLATE_NOOP("QObject", "Remote location"),
    QT_TRANSLATE_NOOP("QObject", "Deleted"),
    QT_TRANSLATE_NOOP("QObject", "Tovin"),
    QT_TRANSLATE_NOOP("QObject", "To be moved from Tovin"),
    QT_TRANSLATE_NOOP("QObject", "Central not converted"),
    QT_TRANSLATE_NOOP("QObject", "Remote not yet found"),
    QT_TRANSLATE_NOOP("QObject", "Remote not yet central"),
    QT_TRANSLATE_NOOP("QObject", "Remote but on Tovin"),
    QT_TRANSLATE_NOOP("QObject", "Unknown file group"),
};
static_assert(std::size(kLocationStateTexts) == LS_Last + 1, "one text per location state");

const char *const kLockStateTexts[] = {
    QT_TRANSLATE_NOOP("QObject", "Undefined"),
    QT_TRANSLATE_NOOP("QObject", "Free"),
    QT_TRANSLATE_NOOP("QObject", "Read"),
    QT_TRANSLATE_NOOP("QObject", "Write"),
};
static_assert(std::size(kLockStateTexts) == LOCK_Last + 1, "one text per lock state");

// The bound test is unsigned, so negative values are out of range as well.
template <std::size_t N> QString lookUp(const char *const (&texts)[N], int value, const char *invalidText)
{
    if (static_cast<unsigned int>(value) >= N)
        return QObject::tr(invalidText);
    return QObject::tr(texts[value]);
}

// Only the upper bound is checked; negative indices are outside the contract.
FileType typeAt(const QVector<FileType> &types, int index, bool instanceExists)
{
    if (!instanceExists || index + 1 > types.size())
        return FT_Unknown;
    return types.at(index);
}

} // namespace

class FileTypeManagerPrivate : public QSharedData
{
public:
    QVector<FileType> types;
};

FileTypeManager *FileTypeManager::m_pInstance = nullptr;

FileTypeManager::FileTypeManager()
    : d(new FileTypeManagerPrivate)
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("FileTypeManager::FileTypeManager: Start"));
    const std::unique_ptr<ICfg> cfg(CfgCenter::CreateCfg(QStringLiteral("KELDA"), CfgCenter::ViewUser, QString()));
    for (const OfferSwitch &offer : kOfferSwitches) {
        if (!cfg || cfg->GetBool(QLatin1String(offer.key), true, 0))
            d->types.append(offer.type);
    }
    Q_TRACE_DETAIL(kSource, QStringLiteral("FileTypeManager::FileTypeManager: End"));
}

FileTypeManager::FileTypeManager(const FileTypeManager &other) = default;
FileTypeManager &FileTypeManager::operator=(const FileTypeManager &other) = default;

FileTypeManager::~FileTypeManager()
{
    Q_TRACE_DETAIL(kSource, QStringLiteral("FileTypeManager::~FileTypeManager: Start"));
    d->types.clear();
    // Only the instance itself may forget the instance: a destroyed copy
    // must not leave Instance() returning a dangling pointer, nor clear it.
    if (m_pInstance == this)
        m_pInstance = nullptr;
    Q_TRACE_DETAIL(kSource, QStringLiteral("FileTypeManager::~FileTypeManager: End"));
}

FileTypeManager *FileTypeManager::Instance()
{
    if (!m_pInstance)
        m_pInstance = new FileTypeManager;
    return m_pInstance;
}

QString FileTypeManager::GetText(FileType type)
{
    return lookUp(kFileTypeTexts, type, QT_TRANSLATE_NOOP("QObject", "Invalid file type"));
}

int FileTypeManager::GetCount() const
{
    return d->types.size();
}

FileType FileTypeManager::GetType(int index)
{
    return typeAt(d->types, index, m_pInstance != nullptr);
}

QString FileTypeManager::GetTextByIndex(int index) const
{
    return GetText(typeAt(d->types, index, m_pInstance != nullptr));
}

QVector<FileType> FileTypeManager::GetTypes()
{
    return d->types;
}

QString LocationStateString::GetText(LocationState state)
{
    return lookUp(kLocationStateTexts, state, QT_TRANSLATE_NOOP("QObject", "Invalid location state"));
}

QString LockStateString::GetText(LockState state)
{
    return lookUp(kLockStateTexts, state, QT_TRANSLATE_NOOP("QObject", "Invalid lock state"));
}

} // namespace Kelda
