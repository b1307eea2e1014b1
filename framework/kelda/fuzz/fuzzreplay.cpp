// Runs a fuzz target's entry function over saved inputs, without libFuzzer:
// the regression inputs and the seed corpus are replayed by every normal
// test run, with any compiler.

#include "fuzzsupport.h"

#include <QByteArray>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QFileInfo>
#include <QStringList>

#include <cstdio>
#include <cstring>

namespace {

void PrintUsage(const char *program)
{
    std::printf("Usage: %s FILE_OR_FOLDER...\n"
                "Feeds every file (folders: every file below them) to the fuzz target once.\n"
                "Exit codes: 0 all inputs ran, 1 an input could not be read, 64 bad arguments.\n"
                "A finding aborts the program with the sanitizer's or the target's report.\n",
                program);
}

QStringList InputFiles(const QString &argument)
{
    const QFileInfo info(argument);
    if (!info.isDir())
        return {argument};
    QStringList files;
    QDirIterator it(argument, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext())
        files << it.next();
    files.sort();
    return files;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 2) {
        PrintUsage(argv[0]);
        return 64;
    }
    for (int i = 1; i < argc; ++i) {
        if (std::strcmp(argv[i], "--help") == 0 || std::strcmp(argv[i], "-h") == 0) {
            PrintUsage(argv[0]);
            return 0;
        }
    }

    int replayed = 0;
    for (int i = 1; i < argc; ++i) {
        const QString argument = QString::fromLocal8Bit(argv[i]);
        if (!QFileInfo::exists(argument)) {
            std::fprintf(stderr, "error: no such file or folder: %s\n", argv[i]);
            return 1;
        }
        for (const QString &name : InputFiles(argument)) {
            QFile file(name);
            if (!file.open(QIODevice::ReadOnly)) {
                std::fprintf(stderr, "error: cannot read %s: %s\n", qPrintable(name), qPrintable(file.errorString()));
                return 1;
            }
            const QByteArray input = file.readAll();
            LLVMFuzzerTestOneInput(reinterpret_cast<const uint8_t *>(input.constData()), size_t(input.size()));
            ++replayed;
        }
    }
    std::printf("%d inputs replayed\n", replayed);
    return 0;
}
