#include <gtest/gtest.h>
#include <sys/sysmacros.h>

#include <cerrno>

#include "sim_error.h"
#include "sim_state.h"
#include "status_document.h"

using orv::zelkosim::SimDevice;
using orv::zelkosim::SimError;
using orv::zelkosim::SimFault;
using orv::zelkosim::SimState;
using orv::zelkosim::StatusDocument;

namespace {

SimState TwoDevices() {
  SimState state;
  state.version = "0.10.3-7";
  SimDevice snap;
  snap.minor = 4;
  snap.state = 3;
  snap.block_device = "/dev/loop7";
  snap.rdev = makedev(7, 7);
  snap.cow_file = "/mnt/odd path\\with\nnewline/.zelko";
  snap.cow_mib = 26;
  snap.volume_bytes = 268435456;
  SimDevice inc = snap;
  inc.minor = 0;
  inc.state = 2;
  inc.error = -27;
  inc.block_device = "/dev/disk/by-uuid/1234-abcd";
  inc.rdev = makedev(259, 3);
  state.devices[4] = snap;
  state.devices[0] = inc;
  state.faults["destroy"] = SimFault{16, 3};
  return state;
}

int ParseErrno(const std::string& text, std::string* message = nullptr) {
  try {
    SimState::Parse(text);
  } catch (const SimError& e) {
    if (message) *message = e.what();
    return e.err();
  }
  return 0;
}

}  // namespace

TEST(ZelkosimStateTest, FormatThenParseKeepsEverything) {
  SimState original = TwoDevices();
  SimState parsed = SimState::Parse(original.Format());
  EXPECT_EQ(parsed.version, "0.10.3-7");
  EXPECT_TRUE(parsed.loaded);
  ASSERT_EQ(parsed.devices.size(), 2u);
  const SimDevice& snap = parsed.devices.at(4);
  EXPECT_EQ(snap.cow_file, original.devices[4].cow_file);
  EXPECT_EQ(snap.rdev, makedev(7, 7));
  EXPECT_EQ(snap.volume_bytes, 268435456u);
  EXPECT_EQ(parsed.devices.at(0).error, -27);
  EXPECT_EQ(parsed.devices.at(0).block_device, "/dev/disk/by-uuid/1234-abcd");
  EXPECT_EQ(parsed.faults.at("destroy").err, 16);
  EXPECT_EQ(parsed.faults.at("destroy").count, 3u);
  EXPECT_EQ(parsed.Format(), original.Format());
  ASSERT_NE(parsed.findTracking(makedev(259, 3)), nullptr);
  EXPECT_EQ(parsed.findTracking(makedev(259, 3))->minor, 0u);
  EXPECT_EQ(parsed.findTracking(0), nullptr);
}

TEST(ZelkosimStateTest, MalformedFilesAreRefusedWithTheLine) {
  std::string message;
  EXPECT_EQ(ParseErrno("", &message), EUCLEAN);
  EXPECT_NE(message.find("line 1"), std::string::npos);
  EXPECT_EQ(ParseErrno("{\"version\": \"0.10.0\"}\n"), EUCLEAN);
  const std::string head = "zelkosim-state 1\nversion 0.10.0\n";
  EXPECT_EQ(ParseErrno(head + "device 1\n  state x\n", &message), EUCLEAN);
  EXPECT_NE(message.find("line 4"), std::string::npos);
  EXPECT_EQ(ParseErrno(head + "device 256\n  state 3\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\ndevice 1\n  state 2\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  error 0\n"), EUCLEAN);  // no state
  EXPECT_EQ(ParseErrno(head + "  state 3\n"), EUCLEAN);             // field outside a device
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n  state 2\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 9\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n  colour red\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n  rdev 7\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n  cow_file /a\\q\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n  cow_file /a\\\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "fault reboot 16 1\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "fault destroy 16\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "loaded yes\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n  cow_mib -5\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n  cow_mib 99999999999999999999999\n"), EUCLEAN);
  EXPECT_EQ(ParseErrno(head + "device 1\n  state 3\n"), 0);
}

// The document's devices by minor and its version are read by the simulator's system tests;
// odd COW paths are escaped here.
TEST(ZelkosimStateTest, StatusDocumentEscapesOddPaths) {
  std::string doc = StatusDocument::Render(TwoDevices());
  EXPECT_NE(doc.find("\"cow_file\": \"/mnt/odd path\\\\with\\nnewline/.zelko\""), std::string::npos) << doc;
  EXPECT_EQ(StatusDocument::Quote(std::string("a\"\x01", 3)), "\"a\\\"\\u0001\"");
}
