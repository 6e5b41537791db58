#pragma once
// What the save needs to know about folding (CommonLib::encodingForSpecialCharacter)
// to skip it where it would change nothing.

namespace quarvel::folding {

// Whether `c` is a character folding passes over without a look: it leads
// no foldable unit, extends none and is none of the substituted or removed
// symbols. A text made only of ASCII and such characters folds to itself,
// and so does a line of a larger text (no unit reaches across CR LF).
// Safe from any thread.
bool leavesAlone(char32_t c);

}  // namespace quarvel::folding
