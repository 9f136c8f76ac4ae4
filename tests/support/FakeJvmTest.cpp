#include "FakeJvm.h"

#include <unistd.h>

#include <gtest/gtest.h>

#include "Error.h"
#include "FailingSyscalls.h"
#include "PrivateHost.h"

using namespace mendline;

namespace {

class FakeJvm : public testing::Test {
 protected:
  rig::NativeLibrary library{ECHO_LIBRARY};
};

TEST_F(FakeJvm, KeepsTheAnswer) {
  const rig::Call call = library.request("<request/>\n");
  EXPECT_EQ(call.answer, "<request/>\n");
  EXPECT_EQ(call.acquired, 1);
  EXPECT_EQ(call.released, 1);
  EXPECT_EQ(call.created, 1);
  EXPECT_TRUE(call.balanced());
  EXPECT_TRUE(call.soundAnswer);
}

TEST_F(FakeJvm, NoticesCharactersThatAreKept) {
  const rig::Call call = library.request("keep the characters");
  EXPECT_EQ(call.released, 0);
  EXPECT_FALSE(call.balanced());
}

TEST_F(FakeJvm, NoticesASecondRelease) {
  const rig::Call call = library.request("release twice");
  EXPECT_EQ(call.released, 2);
  EXPECT_FALSE(call.soundRelease);
}

TEST_F(FakeJvm, NoticesAnAnswerThatIsNoNewString) {
  const rig::Call call = library.request("return the request");
  EXPECT_FALSE(call.soundAnswer);
  EXPECT_FALSE(call.answer.has_value());
}

TEST_F(FakeJvm, RefusesCharacters) {
  rig::JvmRefusals refusals;
  refusals.noCharacters = true;
  const rig::Call call = library.request("text", refusals);
  EXPECT_EQ(call.acquired, 0);
  EXPECT_EQ(call.answer, std::nullopt);
}

TEST_F(FakeJvm, RefusesAString) {
  rig::JvmRefusals refusals;
  refusals.noString = true;
  const rig::Call call = library.request("text", refusals);
  EXPECT_EQ(call.created, 1);
  EXPECT_EQ(call.answer, std::nullopt);
  EXPECT_TRUE(call.balanced());
}

TEST_F(FakeJvm, PassesANullRequest) {
  rig::JvmRefusals refusals;
  refusals.nullRequest = true;
  EXPECT_EQ(library.request("", refusals).answer, "null");
}

TEST_F(FakeJvm, HasNoOtherFunction) {
  // Whether by signal or by a sanitizer's report: the child does not survive the call.
  EXPECT_FALSE(rig::inChild([&] {
    close(STDERR_FILENO);
    library.request("use another function");
  }));
}

TEST(NativeLibrary, RefusesWhatIsNoLibrary) {
  EXPECT_THROW(rig::NativeLibrary("/etc/passwd"), rig::Error);
}

TEST(RequestDriver, AnswersLineByLine) {
  rig::PrivateHost host;
  const rig::Run run = host.program({REQUEST_DRIVER_PROGRAM, ECHO_LIBRARY})
                           .withInput("one\\ntwo\\\\n\n!null\nthree\n")
                           .run();
  EXPECT_EQ(run.exitStatus, 0) << run.errors;
  EXPECT_EQ(run.output, "one\\ntwo\\\\n\nnull\nthree\n");
}

TEST(RequestDriver, ExitsOnOrder) {
  rig::PrivateHost host;
  const rig::Run run =
      host.program({REQUEST_DRIVER_PROGRAM, ECHO_LIBRARY}).withInput("!exit 7\nnever\n").run();
  EXPECT_EQ(run.exitStatus, 7);
  EXPECT_EQ(run.output, "");
}

TEST(RequestDriver, CountsItsThreads) {
  rig::PrivateHost host;
  const rig::Run run =
      host.program({REQUEST_DRIVER_PROGRAM, ECHO_LIBRARY}).withInput("!threads\n!threads\n").run();
  ASSERT_EQ(run.outputLines().size(), 2U);
  EXPECT_GE(std::stoi(run.outputLines()[0]), 1);
  EXPECT_EQ(run.outputLines()[0], run.outputLines()[1]);
}

TEST(RequestDriver, NamesWhatItCannotLoad) {
  rig::PrivateHost host;
  const rig::Run run = host.program({REQUEST_DRIVER_PROGRAM, "/no/such/library.so"}).run();
  EXPECT_EQ(run.exitStatus, 2);
  EXPECT_NE(run.errors.find("/no/such/library.so"), std::string::npos) << run.errors;
}

}  // namespace
