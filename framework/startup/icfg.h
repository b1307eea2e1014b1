#pragma once

#include "startupglobal.h"

#include <QString>

// One configuration group of the host framework. Obtained from CfgCenter and
// owned (deleted) by the caller.
class FRAMEWORKSTARTUP_EXPORT ICfg
{
public:
    virtual ~ICfg();

    virtual bool HasKey(const QString &key, int flags = 0) const = 0;
    virtual QString GetString(const QString &key, const QString &defaultValue) const = 0;
    virtual int GetInt(const QString &key, int defaultValue) const = 0;
    virtual bool GetBool(const QString &key, bool defaultValue, int flags = 0) const = 0;
    virtual void SetInt(const QString &key, int value) = 0;
    // Makes the writes so far durable.
    virtual void Flush(const QString &key, int flags = 0) = 0;
};
