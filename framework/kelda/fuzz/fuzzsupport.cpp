#include "fuzzsupport.h"

#include "errorhandler.h"

#include <QCoreApplication>

#include <cstdio>
#include <cstdlib>

namespace KeldaFuzz {

void EnsureApplication()
{
    if (QCoreApplication::instance())
        return;
    static int argc = 1;
    static char name[] = "kelda_fuzz";
    static char *argv[] = {name, nullptr};
    static QCoreApplication application(argc, argv);
    ErrorHandler::Instance()->SetLevel(0);
    // Qt's own warnings (corrupt compressed data, unknown encodings) are
    // what the inputs are made to provoke.
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
}

void Fail(const char *reason)
{
    std::fprintf(stderr, "kelda fuzz: %s\n", reason);
    std::abort();
}

} // namespace KeldaFuzz
