// The short form that stops a change that makes the library dearer.
#pragma once

namespace mendline::bench {

// Measures what there are targets for, prints a line for each and, at the end, "N passed, M
// failed". True when none has failed. Takes about half a minute and makes its own crowds.
bool keepsTargets();

}  // namespace mendline::bench
