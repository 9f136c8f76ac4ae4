// A library with the product's exported name that answers with the request, or does as the request
// asks: for the tests of FakeJvm, request-driver and the quick clock.
#include <jni.h>
#include <pthread.h>
#include <time.h>

#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>

namespace {

long realMilliseconds() {
  timespec now = {};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return now.tv_sec * 1000 + now.tv_nsec / 1'000'000;
}

// Both waits answer how many real milliseconds they took.
std::string waitThirtySeconds() {
  const long start = realMilliseconds();
  std::mutex mutex;
  std::condition_variable condition;
  std::unique_lock lock(mutex);
  condition.wait_until(lock, std::chrono::system_clock::now() + std::chrono::seconds(30));
  return std::to_string(realMilliseconds() - start);
}

std::string waitByTheKernelsClock() {
  const long start = realMilliseconds();
  pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;
  pthread_cond_t condition = PTHREAD_COND_INITIALIZER;
  timespec deadline = {};
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += 1;
  pthread_mutex_lock(&mutex);
  pthread_cond_timedwait(&condition, &mutex, &deadline);
  pthread_mutex_unlock(&mutex);
  return std::to_string(realMilliseconds() - start);
}

}  // namespace

extern "C" JNIEXPORT jstring JNICALL
Java_com_norvane_vdi_agent_standalone_utility_MendLineNative_forwardAndHandleRequest(
    JNIEnv* environment, jobject, jstring request) {
  if (request == nullptr) {
    return environment->NewStringUTF("null");
  }
  const char* text = environment->GetStringUTFChars(request, nullptr);
  if (text == nullptr) {
    return nullptr;
  }
  const auto asks = [text](const char* what) { return std::strcmp(text, what) == 0; };
  if (asks("keep the characters")) {
    return environment->NewStringUTF("kept");
  }
  if (asks("release twice")) {
    const jstring answer = environment->NewStringUTF("twice");
    environment->ReleaseStringUTFChars(request, text);
    environment->ReleaseStringUTFChars(request, text);
    return answer;
  }
  if (asks("return the request")) {
    environment->ReleaseStringUTFChars(request, text);
    return request;
  }
  if (asks("use another function")) {
    environment->GetStringUTFLength(request);
  }
  std::string reply = text;
  if (asks("wait thirty seconds")) {
    reply = waitThirtySeconds();
  } else if (asks("wait a second by the kernel's clock")) {
    reply = waitByTheKernelsClock();
  }
  const jstring answer = environment->NewStringUTF(reply.c_str());
  environment->ReleaseStringUTFChars(request, text);
  return answer;
}
