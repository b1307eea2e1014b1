#pragma once

namespace KeldaCli {

// How much `kelda` tells besides its results and errors, which are always
// printed.
enum class Verbosity {
    // No progress display, no summary lines.
    Quiet,
    // Progress and summaries, on a terminal only.
    Normal,
    // A line per file with its timing, also when stderr is not a terminal.
    Verbose
};

} // namespace KeldaCli
