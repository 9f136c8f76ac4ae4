// The encoding in which a JVM takes text from native code.
//
// Modified UTF-8 writes a character beyond U+FFFF as two surrogates of three bytes each, knows no
// sequence of four bytes, and has no zero byte. A pure function, callable from any thread.
#pragma once

#include <string>

namespace mendline {

// Makes `text` legal modified UTF-8. Bytes that are it already stay as they are; a whole UTF-8
// sequence of four bytes becomes its two surrogates; every other byte becomes one U+FFFD.
// Without this a JVM drops as many characters from the end of the string as there are stray bytes
// in it, hence closing tags, since process names are cut inside a character now and then.
void makeModifiedUtf8(std::string& text);

}  // namespace mendline
