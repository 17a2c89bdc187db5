#pragma once

// Root of the process file system, "/proc" unless a test points it at a
// prepared tree. Fixed kernel paths such as "/proc/modules" do not use it.

#include <cstddef>

const char* GetProcRoot();
// Copies root (at most 255 characters); nullptr restores "/proc".
void SetProcRoot(const char* root);
