#include "FakeJvm.h"

#include <dlfcn.h>
#include <jni.h>

#include <algorithm>
#include <memory>
#include <vector>

#include "Error.h"

namespace mendline::rig {
namespace {

constexpr const char* kExportedName =
    "Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_forwardAndHandleRequest";

using Exported = jstring (*)(JNIEnv*, jobject, jstring);

struct FakeString {
  std::string text;
};

// An environment is known to its functions by address, so the records lie right behind it.
struct FakeEnvironment : JNIEnv_ {
  const JvmRefusals* refusals = nullptr;
  FakeString request;
  // A copy per acquisition: a use after release becomes visible to a memory checker.
  std::vector<std::unique_ptr<std::string>> held;
  std::vector<std::unique_ptr<FakeString>> made;
  Call call;
};

FakeEnvironment& behind(JNIEnv* environment) {
  return *static_cast<FakeEnvironment*>(environment);
}

jstring asJava(FakeString* text) {
  return reinterpret_cast<jstring>(text);
}

const char* JNICALL acquire(JNIEnv* environment, jstring text, jboolean* isCopy) {
  FakeEnvironment& fake = behind(environment);
  if (fake.refusals->noCharacters) {
    return nullptr;
  }
  if (isCopy != nullptr) {
    *isCopy = JNI_TRUE;
  }
  const auto* source = reinterpret_cast<FakeString*>(text);
  fake.held.push_back(std::make_unique<std::string>(source->text));
  ++fake.call.acquired;
  return fake.held.back()->c_str();
}

void JNICALL release(JNIEnv* environment, jstring text, const char* characters) {
  FakeEnvironment& fake = behind(environment);
  ++fake.call.released;
  const auto found = std::find_if(fake.held.begin(), fake.held.end(),
                                  [&](const auto& copy) { return copy->c_str() == characters; });
  if (found == fake.held.end() || text != asJava(&fake.request)) {
    fake.call.soundRelease = false;
    return;
  }
  fake.held.erase(found);
}

jstring JNICALL create(JNIEnv* environment, const char* characters) {
  FakeEnvironment& fake = behind(environment);
  ++fake.call.created;
  if (fake.refusals->noString) {
    return nullptr;
  }
  fake.made.push_back(std::make_unique<FakeString>(FakeString{characters}));
  return asJava(fake.made.back().get());
}

JNINativeInterface_ threeFunctions() {
  JNINativeInterface_ table = {};
  table.GetStringUTFChars = acquire;
  table.ReleaseStringUTFChars = release;
  table.NewStringUTF = create;
  return table;
}

}  // namespace

Call callExported(ExportedFunction function, const std::string& request,
                  const JvmRefusals& refusals) {
  static const JNINativeInterface_ table = threeFunctions();
  FakeEnvironment fake;
  fake.functions = &table;
  fake.refusals = &refusals;
  fake.request.text = request;
  // An object that must not be looked into: the address of something that is no object.
  int object = 0;
  const jstring answer =
      reinterpret_cast<Exported>(function)(&fake, reinterpret_cast<jobject>(&object),
                                           refusals.nullRequest ? nullptr : asJava(&fake.request));
  if (answer != nullptr) {
    const auto found = std::find_if(fake.made.begin(), fake.made.end(),
                                    [&](const auto& text) { return asJava(text.get()) == answer; });
    fake.call.soundAnswer = found != fake.made.end();
    if (fake.call.soundAnswer) {
      fake.call.answer = (*found)->text;
    }
  }
  return fake.call;
}

std::string NativeLibrary::shippedPath() {
#ifdef MENDLINE_LIBRARY
  return MENDLINE_LIBRARY;
#else
  throw Error("this build has no libmendline.so");
#endif
}

NativeLibrary::NativeLibrary(const std::string& path)
    : handle_(dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL)) {
  if (handle_ == nullptr) {
    throw Error(std::string("cannot load the library: ") + dlerror());
  }
  function_ = dlsym(handle_, kExportedName);
  if (function_ == nullptr) {
    dlclose(handle_);
    throw Error(path + " does not export " + kExportedName);
  }
}

void NativeLibrary::unload() {
  if (dlclose(handle_) != 0) {
    throw Error(std::string("cannot unload the library: ") + dlerror());
  }
}

Call NativeLibrary::request(const std::string& text, const JvmRefusals& refusals) const {
  return callExported(function_, text, refusals);
}

void* NativeLibrary::symbol(const std::string& name) const {
  return dlsym(handle_, name.c_str());
}

}  // namespace mendline::rig
