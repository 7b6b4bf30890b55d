#pragma once

// glibc keeps the pages of freed heap memory when live blocks sit above them, so the bursts
// of short-lived allocations of a window being built (SVG documents, rows of widgets being
// replaced) stay resident for good. afterBurst() hands those free pages back to the system
// once the program has been quiet for a moment; blocks in use are never touched.
namespace HeapTrim {

// Main thread only. Each call pushes the trim back, so a burst costs one trim.
void afterBurst();

// How long the program must be quiet before the trim.
constexpr int kQuietMs = 1500;

} // namespace HeapTrim
