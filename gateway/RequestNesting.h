// A look at how deeply a request is nested, before it is parsed.
//
// The XML parser calls itself once per level, and a request of a few thousand levels would overflow
// the stack of the thread that brings it. Pure functions, callable from any thread.
#pragma once

#include <optional>
#include <string>

namespace mendline {

inline constexpr int kDeepestNesting = 512;  // elements within each other, the root included

// The line, counted from 1, of the first element that is nested deeper than kDeepestNesting;
// nothing where there is none before the parser would give up. Takes the text for what the parser
// takes it for, byte by byte, up to its end or its first zero byte; only a character reference
// that is none, at which the parser would give up, is passed over.
std::optional<long> lineNestedTooDeeply(const std::string& request);

}  // namespace mendline
