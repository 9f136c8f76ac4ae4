// Calls the product's exported function as a JVM would, without one.
//
// The JNI environment it passes has the three functions the product may use and nothing else: a
// call of any other crashes. Requests may be made from several threads at once; each has an
// environment and a Call of its own. Throws Error when the library or its function is not found.
#pragma once

#include <optional>
#include <string>

namespace mendline::rig {

// Ways in which a JVM may refuse, as it does when its memory runs out.
struct JvmRefusals {
  bool nullRequest = false;   // passes a null jstring
  bool noCharacters = false;  // GetStringUTFChars returns null
  bool noString = false;      // NewStringUTF returns null
};

// What one request led to.
struct Call {
  std::optional<std::string> answer;  // absent when the function returned null
  int acquired = 0;                   // calls of GetStringUTFChars that returned characters
  int released = 0;                   // calls of ReleaseStringUTFChars
  int created = 0;                    // calls of NewStringUTF
  bool soundRelease = true;           // every release named this request and characters still held
  bool soundAnswer = true;            // the string returned is null or one that NewStringUTF made

  // Everything that was acquired has been given back, once.
  bool balanced() const { return acquired == released && soundRelease; }
};

// The exported function's address, in whatever way it was found.
using ExportedFunction = void*;

Call callExported(ExportedFunction function, const std::string& request,
                  const JvmRefusals& refusals = {});

// A library loaded with dlopen, as System.load does it. Like a JVM's it stays loaded when this
// goes, since a thread of its own may be running in it.
class NativeLibrary {
 public:
  // Default: the libmendline.so of this build.
  explicit NativeLibrary(const std::string& path = shippedPath());

  static std::string shippedPath();

  Call request(const std::string& text, const JvmRefusals& refusals = {}) const;
  // Null when the library does not export the name.
  void* symbol(const std::string& name) const;
  // Undoes the loading; nothing else may be called then.
  void unload();

 private:
  void* handle_;
  ExportedFunction function_ = nullptr;
};

}  // namespace mendline::rig
