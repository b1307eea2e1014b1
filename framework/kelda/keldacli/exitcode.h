#pragma once

namespace KeldaCli {

// The exit status of `kelda`. Scripts rely on these numbers: never renumber.
enum ExitCode : int {
    ExitOk = 0,
    // `exists` only: the group is not in the archive.
    ExitNo = 1,
    ExitUsage = 2,
    // Not connected within the connect timeout, or the connection dropped.
    ExitUnreachable = 3,
    // The server answered with an error; its text is printed.
    ExitServerError = 4,
    // A local file could not be read or written.
    ExitLocalFile = 5,
    // The server did not answer in time.
    ExitTimeout = 6,
    // `get`: a fetched copy differs from the digest the archive recorded;
    // the copy was removed.
    ExitDigestMismatch = 7,
    // `verify`: a file is not intact (mismatch, missing or unverified).
    ExitNotIntact = 8
};

// The table printed by `kelda --help` and in the README.
inline const char *exitCodeHelp()
{
    return "Exit codes:\n"
           "  0  success (exists: the group exists)\n"
           "  1  exists: the group does not exist\n"
           "  2  bad arguments\n"
           "  3  the server cannot be reached\n"
           "  4  the server refused the request (its error text is printed)\n"
           "  5  a local file cannot be read or written\n"
           "  6  the server did not answer in time\n"
           "  7  get: a fetched copy differs from the archive's digest (the copy is removed)\n"
           "  8  verify: a file is not intact (mismatch, missing or unverified)\n";
}

} // namespace KeldaCli
