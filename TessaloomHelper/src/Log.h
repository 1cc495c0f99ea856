#pragma once

#include <string_view>

namespace tessaloom {

/// Writes "helper: ", the text, a colon and the cause if there is one, and a line feed to standard
/// error, at once, so that lines of several threads do not mix. Text and cause are each cleaned to
/// one line and cut to 500 Unicode scalars. Failures are ignored, and a line is dropped while
/// standard error takes none (a pipe that nobody reads, a terminal that was stopped): it must not
/// stop the helper. Another process that fills the same pipe at this moment may still make it wait.
void logLine(std::string_view text, std::string_view cause = {});

/// Writes the line that says which signal ended the helper; the exit status for it.
int reportEnd(int signal);

}  // namespace tessaloom
