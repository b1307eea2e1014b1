#pragma once

#include "keldaclientglobal.h"

#include <QString>

class QCommandLineParser;

namespace Kelda {

// The TLS files this project's client programs take on their command line
// (--tls-ca, --tls-cert, --tls-key), over those of the configuration.
//
// Internal and not installed, like configuredserver.h.
struct KELDACLIENT_EXPORT TlsOptions
{
    // An empty authority leaves TLS as configured.
    QString caFile;
    QString certFile;
    QString keyFile;

    static void Add(QCommandLineParser &parser);
    // False, with a message naming the options, for files that do not go
    // together.
    static bool Read(const QCommandLineParser &parser, TlsOptions *options, QString *error);

    // Makes the clients of this process use the files, when an authority is
    // given.
    void Apply() const;
};

} // namespace Kelda
