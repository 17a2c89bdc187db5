#pragma once

// Files the watchdog writes or removes as root in directories that others may
// write to (pid files, the crash dump, socket paths, old version trees). None
// of these operations ever follows a link: whatever is planted at such a path
// is removed, never written through.

#include <sys/types.h>

// Removes path and, when it is a directory, everything below it, depth first
// and without following links (a link is removed as a link) or crossing into
// another file system. True when nothing is left at the path.
bool RemoveTree(const char* path);

// Opens path for writing, truncated, as a regular file of mode 0644 with
// O_NOFOLLOW | O_CLOEXEC; anything else at the path (a link, a directory, a
// fifo) is removed first. The descriptor, or -1 with errno set.
int OpenRegularFileForWriting(const char* path);

// Replaces path by a regular file of mode 0644 holding text: written under a
// temporary name in the same directory, then renamed into place, so a reader
// never sees half of it and a planted link is replaced, not followed.
bool ReplaceFileAtomically(const char* path, const char* text);

// Creates path and its missing parents, each with the given mode; true when
// path is a directory afterwards.
bool MakeDirectories(const char* path, mode_t mode);
