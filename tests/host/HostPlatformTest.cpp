// Host logger, debug print, assertion, start-up environment, properties and pipe manager.
#define CD_LOG_TAG "OrvCam/HostTest"
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <csignal>
#include <fstream>
#include <regex>

#include "CamDeliverLog.h"
#include "TestSupport.h"
#include "properties/Properties.h"

using namespace orvcam;
using namespace orvcam::host;
using NSCam::Utils::Properties::property_get_int32;
using NSCam::Utils::ULog::ULogger;

namespace {
// Also a POSIX extended regex, as death tests need.
const std::string kStamp =
    "[0-9]{2}-[0-9]{2} [0-9]{2}:[0-9]{2}:[0-9]{2}\\.[0-9]{3} +[0-9]+ +[0-9]+ ";

std::string writeTemp(const std::string& name, const std::string& text) {
  std::string path = testing::TempDir() + name + std::to_string(getpid());
  std::ofstream(path) << text;
  return path;
}
using Event = std::tuple<LicenseEvent, uint64_t, int32_t>;

uint64_t serialOf(const std::unique_ptr<IRequestLicense>& license) {
  return static_cast<const HostLicense&>(*license).serial();
}

class MockPipeMgr : public IPipeMgr {
 public:
  MOCK_METHOD(std::unique_ptr<IRequestLicense>, acquireLicense, (), (override));
  MOCK_METHOD(std::unique_ptr<IRequestLicense>, acquireLicenseForFD, (int32_t), (override));
  MOCK_METHOD(void, releaseLicense, (std::unique_ptr<IRequestLicense>&, bool, bool), (override));
  MOCK_METHOD((std::map<uint32_t, std::tuple<uint32_t, int32_t, int32_t>>), configure,
              (const std::shared_ptr<ConfigParam>&, std::unique_ptr<IRequestLicense>&), (override));
};
}  // namespace

TEST(HostLogger, WritesLogcatThreadtimeLinesToStderr) {
  testing::internal::CaptureStderr();
  ULogger::print(0x401031, "OrvCam/X", 2, "warn 1 and junk", 6);
  std::string out = testing::internal::GetCapturedStderr();
  EXPECT_TRUE(std::regex_match(out, std::regex(kStamp + "W OrvCam/X: warn 1\n"))) << out;
  std::string line = host::formatLogcatLine('I', "T", "a\nb");
  EXPECT_TRUE(std::regex_match(line, std::regex(kStamp + "I T: a\n" + kStamp + "I T: b")));
}

// The usec layout that camdeliver-log reads, and back to milliseconds.
TEST(HostLogger, StampsToTheMicrosecondWhenAsked) {
  const std::string usec = R"(\d\d-\d\d \d\d:\d\d:\d\d\.\d{6} +\d+ +\d+ )";
  ASSERT_FALSE(host::logMicroseconds());
  host::setLogMicroseconds(true);
  std::string fine = host::formatLogcatLine('D', "T", "x");
  testing::internal::CaptureStderr();
  ULogger::print(0x401031, "OrvCam/X", 2, "warn", 4);
  std::string written = testing::internal::GetCapturedStderr();
  host::setLogMicroseconds(false);
  EXPECT_TRUE(std::regex_match(fine, std::regex(usec + "D T: x"))) << fine;
  EXPECT_TRUE(std::regex_match(written, std::regex(usec + "W OrvCam/X: warn\n"))) << written;
  std::string coarse = host::formatLogcatLine('D', "T", "x");
  EXPECT_TRUE(std::regex_match(coarse, std::regex(kStamp + "D T: x"))) << coarse;
}

TEST(HostLogger, LevelLettersAndNestedCaptures) {
  host::LogCapture outer;
  {
    host::LogCapture inner;
    for (int level = 0; level <= 7; ++level) ULogger::print(0, "T", level, "m", 1);
    for (int level = 0; level < CAM_DEBUG_LEVEL_COUNT; ++level)
      log_dbg_print("T", static_cast<cam_debug_level_t>(level), "n%d", level);
    std::string letters;
    for (const host::LogLine& line : inner.lines()) letters += line.level;
    EXPECT_EQ(letters, "FEWIDDVVDEWIV");
    EXPECT_EQ(inner.messages("T", 'W'), (std::vector<std::string>{"m", "n2"}));
    EXPECT_STREQ(get_filename_log_control("hw/a/CamDeliver.cpp"), "CamDeliver.cpp");
  }
  EXPECT_TRUE(outer.lines().empty());
  ULogger::print(0, "T", 3, "after", 5);
  EXPECT_EQ(outer.count("after"), 1u);
}

TEST(HostLogger, StartUpDefaultsShowWarningsButNotDebug) {
  if (getenv("ORVCAM_ULOG_LEVEL") || getenv("ORVCAM_ULOG_MASK") || getenv("ORVCAM_ULOG_MODE"))
    GTEST_SKIP() << "logger environment set";
  host::LoggerSettings s = host::loggerSettings();
  EXPECT_EQ(std::make_tuple(s.detailsLevel, s.mask, s.mode), std::make_tuple(2, 0x401000u, 2));
  host::LogCapture capture;
  CD_LOGD("[%s] debug %d", 1);
  CD_LOGW("[%s] warning %d", 2);
  EXPECT_EQ(capture.messages(), (std::vector<std::string>{"[TestBody] warning 2"}));
}

TEST(HostLoggerDeathTest, AssertionAbortsWithItsMessageOnStderr) {
  EXPECT_EXIT(
      {
        host::LogCapture capture;  // must not swallow the fatal line
        __android_log_assert(nullptr, "OrvCam/T", "bad %d (%s){#%d:%s}", 7, "fn", 12, "a/b.cpp");
      },
      testing::KilledBySignal(SIGABRT),
      kStamp + "F OrvCam/T: " + test::escapeRegex("bad 7 (fn){#12:a/b.cpp}") + "\n");
  // A format is the whole message; the condition is named only without one.
  EXPECT_EXIT(__android_log_assert("x > 1", "T", "%s", "msg"), testing::KilledBySignal(SIGABRT),
              "F T: msg\n");
  EXPECT_EXIT(__android_log_assert("x > 1", "T", nullptr), testing::KilledBySignal(SIGABRT),
              "F T: Assertion failed: x > 1\n");
  EXPECT_EXIT(__android_log_assert(nullptr, "T", nullptr), testing::KilledBySignal(SIGABRT),
              "F T: Unspecified assertion failed\n");
  test::LoggerScope silent(5, 0x401000, 0);
  EXPECT_FATAL(CD_FATAL("pool %d", 3), "pool 3", "TestBody", "HostPlatformTest.cpp");
}

// The environment is read once per process, so a re-executed child checks it.
TEST(HostStartUpDeathTest, EnvironmentConfiguresLoggerPropertiesAndTraceTags) {
  const std::string savedStyle = GTEST_FLAG_GET(death_test_style);
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  const std::pair<const char*, std::string> env[] = {
      {"ORVCAM_ULOG_LEVEL", "0x6"},
      {"ORVCAM_ULOG_MASK", "4198401"},
      {"ORVCAM_ULOG_MODE", "3"},
      {"ORVCAM_PROPERTY_FILE", writeTemp("props", "vendor.x = 0x11\n")},
      {"ORVCAM_TRACE_TAGS", "0x400"}};
  for (const auto& e : env) setenv(e.first, e.second.c_str(), 1);
  EXPECT_EXIT(
      {
        host::LoggerSettings s = host::loggerSettings();
        bool ok = s.detailsLevel == 6 && s.mask == 0x401001u && s.mode == 3 &&
                  property_get_int32("vendor.x", 0) == 17 && atrace_get_enabled_tags() == 0x400;
        std::_Exit(ok ? 0 : 1);
      },
      testing::ExitedWithCode(0), "");
  for (const auto& e : env) unsetenv(e.first);
  GTEST_FLAG_SET(death_test_style, savedStyle);
}

TEST(HostProperties, Int32ParsesLikeAndroid) {
  const std::pair<const char*, int32_t> cases[] = {{"42", 42},
                                                   {"0x10", 16},
                                                   {"010", 8},
                                                   {"-7", -7},
                                                   {" 12", 12},
                                                   {"12abc", 12},
                                                   {"abc", -1},
                                                   {"", -1},
                                                   {"2147483647", INT32_MAX},
                                                   {"-0x80000000", INT32_MIN},
                                                   {"2147483648", -1},
                                                   {"-2147483649", -1},
                                                   {"99999999999999999999999", -1}};
  for (const auto& c : cases) {
    host::setProperty("test.int", c.first);
    EXPECT_EQ(property_get_int32("test.int", -1), c.second) << '"' << c.first << '"';
  }
  host::clearProperty("test.int");
  EXPECT_EQ(property_get_int32("test.int", 5), 5);
}

TEST(HostProperties, FileLoadsKeyValueLinesAndNamesTheBadLine) {
  host::clearProperties();
  std::string error;
  ASSERT_TRUE(host::loadPropertyFile(
      writeTemp("good", "# comment\n\n  a.b = 0x20 \nempty=\nc=x=y\n"), &error))
      << error;
  EXPECT_EQ(host::getProperty("a.b"), "0x20");
  EXPECT_EQ(host::getProperty("c"), "x=y");
  for (const char* bad : {"x=1\nno value here\n", "x=1\n = v\n"}) {
    std::string path = writeTemp("bad", bad);
    EXPECT_FALSE(host::loadPropertyFile(path, &error));
    EXPECT_EQ(error, path + ":2: expected key=value");
    EXPECT_EQ(host::getProperty("x"), "");  // nothing of a bad file is applied
  }
  EXPECT_FALSE(host::loadPropertyFile("/nonexistent/p.prop", &error));
  host::clearProperties();
}

TEST(HostPipeMgr, AccountsForEveryLicenceAndRecordsConfigure) {
  HostPipeMgr mgr;
  std::vector<Event> events;
  mgr.setObserver([&](LicenseEvent e, uint64_t s, int32_t fd) { events.emplace_back(e, s, fd); });
  auto a = mgr.acquireLicense();
  auto b = mgr.acquireLicense();
  auto c = mgr.acquireLicenseForFD(a->getFD());
  EXPECT_EQ(std::make_tuple(a->getFD(), b->getFD(), c->getFD()), std::make_tuple(1, 2, 1));
  const uint64_t sa = serialOf(a), sb = serialOf(b), sc = serialOf(c);
  mgr.releaseLicense(a, false, true);
  EXPECT_EQ(a, nullptr);               // moved out of the caller's pointer
  mgr.releaseLicense(a, false, true);  // handed back twice: the second call finds it empty
  EXPECT_EQ(mgr.account().emptyReleases, 1u);
  b.reset();  // dies without having been handed back
  LicenseAccount acc = mgr.account();
  EXPECT_EQ(std::make_tuple(acc.acquired, acc.released, acc.destroyed, acc.live()),
            std::make_tuple(3u, 1u, 1u, 1u));
  EXPECT_EQ(events, (std::vector<Event>{{LicenseEvent::Acquired, sa, 1},
                                        {LicenseEvent::Acquired, sb, 2},
                                        {LicenseEvent::Acquired, sc, 1},
                                        {LicenseEvent::Released, sa, 1},
                                        {LicenseEvent::Destroyed, sb, 2}}));

  auto result = mgr.configure(std::make_shared<ConfigParam>(ConfigParam{3, 77}), c);
  EXPECT_EQ(result, (decltype(result){{3u, std::make_tuple(77u, 1, 0)}}));
  ASSERT_NE(c, nullptr);  // configure leaves the licence with the caller
  std::vector<ConfigureCall> calls = mgr.configureCalls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(std::make_tuple(calls[0].config.frameNo, calls[0].serial), std::make_tuple(77u, sc));

  mgr.reset();
  c.reset();  // handed out before the reset: no longer counted
  EXPECT_TRUE(mgr.account().balanced());
  EXPECT_EQ(mgr.acquireLicense()->getFD(), 1);
}

TEST(HostPipeMgr, LicenceOutlivingItsManagerIsSafe) {
  std::unique_ptr<IRequestLicense> orphan;
  int observed = 0;
  {
    HostPipeMgr mgr;
    mgr.setObserver([&](LicenseEvent, uint64_t, int32_t) { ++observed; });
    orphan = mgr.acquireLicense();
  }
  orphan.reset();
  EXPECT_EQ(observed, 1);  // nobody listens once the manager is gone
}

TEST(HostPipeMgr, GetInstanceAnswersTheInstalledReplacement) {
  EXPECT_EQ(IPipeMgr::getInstance(), hostPipeMgr());
  auto mock = std::make_shared<MockPipeMgr>();
  EXPECT_CALL(*mock, acquireLicenseForFD(5))
      .WillOnce(testing::Return(testing::ByMove(HostPipeMgr().acquireLicenseForFD(5))));
  setPipeMgrInstance(mock);
  std::shared_ptr<IPipeMgr> instance = IPipeMgr::getInstance();
  EXPECT_EQ(instance.get(), mock.get());
  EXPECT_EQ(instance->acquireLicenseForFD(5)->getFD(), 5);
  setPipeMgrInstance(nullptr);
  EXPECT_EQ(IPipeMgr::getInstance(), hostPipeMgr());
}

TEST(HostPipeMgr, ForeignLicenceIsDestroyedAndCountedByItsOwnManager) {
  HostPipeMgr own, other;
  std::vector<Event> ownEvents, otherEvents;
  own.setObserver(
      [&](LicenseEvent e, uint64_t s, int32_t fd) { ownEvents.emplace_back(e, s, fd); });
  other.setObserver(
      [&](LicenseEvent e, uint64_t s, int32_t fd) { otherEvents.emplace_back(e, s, fd); });
  auto license = own.acquireLicense();
  const uint64_t serial = serialOf(license);
  other.releaseLicense(license, false, true);
  EXPECT_EQ(license, nullptr);  // taken out of the caller's pointer all the same
  LicenseAccount a = own.account(), b = other.account();
  EXPECT_EQ(std::make_tuple(a.acquired, a.released, a.destroyed), std::make_tuple(1u, 0u, 1u));
  EXPECT_EQ(std::make_tuple(b.acquired, b.released, b.destroyed), std::make_tuple(0u, 0u, 0u));
  EXPECT_EQ(ownEvents, (std::vector<Event>{{LicenseEvent::Acquired, serial, 1},
                                           {LicenseEvent::Destroyed, serial, 1}}));
  EXPECT_TRUE(otherEvents.empty());
}

TEST(HostPipeMgr, ResetForgetsTheLicencesAliveAtTheReset) {
  HostPipeMgr mgr;
  std::vector<Event> events;
  mgr.setObserver([&](LicenseEvent e, uint64_t s, int32_t fd) { events.emplace_back(e, s, fd); });
  auto released = mgr.acquireLicense();
  auto destroyed = mgr.acquireLicenseForFD(released->getFD());
  mgr.reset();
  events.clear();
  mgr.releaseLicense(released, false, true);
  destroyed.reset();
  EXPECT_EQ(released, nullptr);
  LicenseAccount acc = mgr.account();
  EXPECT_EQ(std::make_tuple(acc.acquired, acc.released, acc.destroyed),
            std::make_tuple(0u, 0u, 0u));
  EXPECT_TRUE(events.empty());
  auto fresh = mgr.acquireLicense();  // counting starts again, FDs too
  EXPECT_EQ(fresh->getFD(), 1);
  EXPECT_EQ(mgr.account().live(), 1u);
  mgr.releaseLicense(fresh, false, true);
  EXPECT_TRUE(mgr.account().balanced());
}

// The manager's lock is never held around a licence's death or an observer, so an observer
// may use the manager and let licences go, and an observer may own licences itself.
TEST(HostPipeMgr, ObserverMayUseTheManagerAndLetLicencesGo) {
  auto mgr = std::make_shared<HostPipeMgr>();
  std::unique_ptr<IRequestLicense> held = mgr->acquireLicense();
  std::vector<uint64_t> liveSeen;
  mgr->setObserver([&](LicenseEvent e, uint64_t, int32_t) {
    liveSeen.push_back(mgr->account().live());
    if (e == LicenseEvent::Released && held) held.reset();  // dies inside the observer
  });
  test::BlockingCall calls("observer calling back", [&] {
    auto license = mgr->acquireLicense();
    mgr->releaseLicense(license, false, true);
    // A new observer owning a licence of the manager; replacing it destroys that licence.
    auto owned = std::make_shared<std::unique_ptr<IRequestLicense>>(mgr->acquireLicense());
    mgr->setObserver([owned](LicenseEvent, uint64_t, int32_t) {});
    owned.reset();
    mgr->setObserver(nullptr);
  });
  ASSERT_TRUE(calls.returnedWithin(test::kReleaseBound));
  EXPECT_EQ(liveSeen, (std::vector<uint64_t>{2, 1, 0, 1}));
  LicenseAccount acc = mgr->account();
  EXPECT_EQ(std::make_tuple(acc.acquired, acc.released, acc.destroyed),
            std::make_tuple(3u, 1u, 2u));
}
