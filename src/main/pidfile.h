// The pid file.
#pragma once

constexpr char KOrsmPidFileName[] = "/var/run/orvoservicemanager.pid";

/// Writes the number of the calling process and a line end to `path`, in place of what was there; a link is not
/// followed, and a pipe not written to. A new file is for its owner alone to write. Never waits. 0 when the file cannot
/// be opened, else 1, also when a full disk leaves it without the number (logged). Main thread.
[[nodiscard]] int write_pidfile(const char* path);
