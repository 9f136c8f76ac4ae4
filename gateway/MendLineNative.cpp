// The one function that the library exports, and the only file that knows JNI.
//
// Called by any Java thread, several at once. Not noexcept: an exception that no operation handles
// passes through here, and the runtime ends the host process.

#include <jni.h>

#include <string>

#include "gateway/MendLineOperation.h"
#include "gateway/ModifiedUtf8.h"

extern "C" JNIEXPORT jstring JNICALL
Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_forwardAndHandleRequest(
    JNIEnv* env, jobject /*receiver*/, jstring request) {
  const char* characters = env->GetStringUTFChars(request, nullptr);
  // Required: no test for null, which a JVM short of memory gives; the construction then raises
  // std::logic_error. Pinned by
  // MendLineNative.ANullRequestEndsTheProcess.
  const std::string requestText(characters);
  // Released before anything else: the JVM's buffer is not held while the operation runs.
  env->ReleaseStringUTFChars(request, characters);

  std::string responseText;
  mendline::handleRequest(requestText, responseText);
  mendline::makeModifiedUtf8(responseText);
  return env->NewStringUTF(responseText.c_str());
}
