#pragma once

// What every program the watchdog starts gets before its exec, called in
// the forked child (or, for the upgrade, in the watchdog itself): the
// dispositions the watchdog set for itself (SIGHUP and SIGPIPE ignored, its
// termination handler) and its signal mask are not the child's, and only
// the standard descriptors cross the exec.

// Every signal back to its default action, an empty signal mask, and every
// descriptor above 2 closed on exec. With ownGroup, the caller also leads a
// new process group, so that a stop can reach everything it starts.
void PrepareExec(bool ownGroup);
