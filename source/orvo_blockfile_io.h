// orvo_blockfile_io.h - the one function through which cBlockFile writes its
// file, replaceable by tests that record or cut the sequence of writes, and
// the size up to which Open maps a file.
// Not installed.
#pragma once

#include <sys/types.h>

#include <cstddef>

#include "orvo_object.h"

namespace orvo {
namespace blockfile_io {

// pwrite(fd, data, len, pos) by default. A test installs its own before it
// opens a file and puts the null pointer back afterwards.
using tWrite = ssize_t (*)(int fd, const void* data, size_t len, off_t pos);
extern tWrite Write;

// Open maps files up to this size to read their chain, and reads larger ones
// through a window. Tests set 0 to take the window path.
extern unsigned long long MapLimit;

}  // namespace blockfile_io
}  // namespace orvo
