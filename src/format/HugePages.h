#pragma once
// Large buffers the data-file code fills once from end to end (a file's
// text, its records' indexes) take a page fault for every 4 KiB touched;
// huge pages take one per 2 MiB.

#include <cstddef>

namespace quarvel::datafile {

// Offers the whole 2 MiB pages inside [block, block + bytes) to the kernel
// for huge pages, before they are first touched. Changes no byte and fails
// silently (the pages stay small). Safe from any thread.
void adviseHugePages(void* block, std::size_t bytes);

// Hands the heap's free pages back to the kernel. An open frees its file's
// bytes, its lines and its buffers as it goes, and builds what stays (the
// records, the indexes) partly in their place: without this, the memory
// freed stays resident for as long as the process lives.
void releaseFreedMemory();

}  // namespace quarvel::datafile
