// The console window: message formatting, the inert class of a program that
// has its streams, and a real console on a terminal (a pseudo-terminal).
#include <gtest/gtest.h>

#if !defined(_WIN32)
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>
#endif

#include <cstdarg>
#include <cstdio>
#include <functional>
#include <string>

#include "ConsoleWindow.h"
#include "sysman.h"
#include "test_support.h"

namespace {

using CSL::ConsoleWindow;

std::string format(const char* text, ...) {
  va_list args;
  va_start(args, text);
  std::string result = ConsoleWindow::FormatText(text, args);
  va_end(args);
  return result;
}

TEST(ConsoleFormat, StrayPercentSignsPrintAsThemselvesAndLongTextsAreCutAt16383) {
  const std::string fits(4095, 'a'), twice(8000, 'b'), four(16000, 'c'), over(20000, 'd'), full(16383, 'e');
  const std::pair<std::string, std::string> rows[] = {
      {ConsoleWindow::EscapeFormat("100% done"), "100%% done"},
      {ConsoleWindow::EscapeFormat("end%"), "end%"},  // a final % is left alone
      {ConsoleWindow::EscapeFormat("%ld"), "%%ld"},   // only the listed characters may follow
      {ConsoleWindow::EscapeFormat("%%d"), "%%d"},
      {format("100% done"), "100% done"},
      {format("50%!"), "50%!"},
      {format("100%x", 255u), "100ff"},  // x converts, so the % is kept and takes an argument
      {format("%5d|%-3s|%.2f|%+d|%%", 42, "ab", 1.5, 7), "   42|ab |1.50|+7|%"},
      {format("%s is 80% of %d%%", "x", 10), "x is 80% of 10%"},
      {format(nullptr), ""},
      {format("%s", fits.c_str()), fits},  // the buffer grows from 4096 up to 16384
      {format("%s", twice.c_str()), twice},
      {format("%s", four.c_str()), four},
      {format("%s", over.c_str()), over.substr(0, 16383)},
      {format("%s!", full.c_str()), full},
  };
  for (const auto& [got, expected] : rows) EXPECT_EQ(got, expected);
}

// A program with its own streams already has its console, and so does one
// without a terminal: every operation is inert and writes nothing.
TEST(ConsoleInert, AProgramWithItsStreamsOrWithoutATerminalHasNoConsoleToMake) {
  EXPECT_FALSE(ConsoleWindow::IsInitialized());
  kvtest::TempDir dir;
  const std::string out = dir.file("out.txt");
  const int status = kvtest::run_in_child([&] {
    if (std::freopen(out.c_str(), "w", stdout) == nullptr) return 1;
    ConsoleWindow::InitializeConsole();
    if (ConsoleWindow::IsInitialized()) return 2;
    ConsoleWindow::DisplayMessage("%s", "not shown");
    ConsoleWindow::DisplayMessage(std::string("nor this"));
    ConsoleWindow::SetTitle("no title");
    ConsoleWindow::Show();
    ConsoleWindow::Hide();
    ConsoleWindow::DisableClose();
    SysManager::Initialize();  // leaves the signals of a program with its own console alone
#if !defined(_WIN32)
    struct sigaction action {};
    sigaction(SIGINT, nullptr, &action);
    if (action.sa_handler != SIG_DFL) return 3;
    const int null = open("/dev/null", O_WRONLY);
    if (setsid() < 0 || null < 0 || dup2(null, STDOUT_FILENO) < 0) return 4;  // and no controlling terminal
    ConsoleWindow::InitializeConsole();
#endif
    return ConsoleWindow::IsInitialized() ? 5 : 0;
  });
  EXPECT_EQ(kvtest::child_result(status), 0);
  EXPECT_EQ(kvtest::read_file(out), "");
}

#if !defined(_WIN32)
// Runs body in a child whose controlling terminal is a new pseudo-terminal and whose
// standard output and error are on the null device: a program without a console of
// its own. Answers the child's wait status and everything written to the terminal.
int on_terminal(const std::function<int()>& body, std::string& terminal) {
  int master = -1, slave = -1;
  if (openpty(&master, &slave, nullptr, nullptr, nullptr) != 0) return -1;
  const int status = kvtest::run_in_child([&] {
    const int null = open("/dev/null", O_WRONLY);
    if (setsid() < 0 || ioctl(slave, TIOCSCTTY, 0) != 0 || dup2(null, 1) < 0 || dup2(null, 2) < 0) return 97;
    return body();
  });
  close(slave);
  char buffer[4096];
  ssize_t n = 0;
  for (pollfd p{master, POLLIN, 0}; poll(&p, 1, 10000) == 1 && (n = read(master, buffer, sizeof buffer)) > 0;)
    terminal.append(buffer, static_cast<size_t>(n));  // ends with EIO: the terminal has no other user
  close(master);
  return status;
}
#endif

// Start-up gives a program without streams the terminal, titles it and
// swallows its control events.
TEST(ConsoleTerminal, AProgramWithoutStreamsGetsTheTerminalAndIgnoresItsControlEvents) {
  KVTEST_POSIX_ONLY("a new console window needs a desktop; these runs are headless");
#if !defined(_WIN32)
  std::string terminal;
  const int status = on_terminal(
      [] {
        SysManager::Initialize();
        if (!ConsoleWindow::IsInitialized()) return 1;
        ConsoleWindow::InitializeConsole();  // a second call changes nothing
        if (!ConsoleWindow::IsInitialized()) return 2;
        ConsoleWindow::SetTitle("Probe\a title");
        ConsoleWindow::DisplayMessage("100% done, %d left\n", 7);
        ConsoleWindow::DisplayMessage(std::string("from a string %s\n"), "argument");
        ConsoleWindow::Show();
        ConsoleWindow::Hide();
        ConsoleWindow::DisableClose();
        std::fputs("stderr too\n", stderr);
        raise(SIGINT);
        raise(SIGQUIT);
        raise(SIGHUP);
        ConsoleWindow::DisplayMessage("still running\n");
        signal(SIGTERM, SIG_DFL);
        raise(SIGTERM);  // other signals keep their meaning
        return 0;
      },
      terminal);
  ASSERT_TRUE(WIFSIGNALED(status)) << terminal;
  EXPECT_EQ(WTERMSIG(status), SIGTERM);
  for (const char* text : {"\033]0;SysManager Debug\007", "\033]0;Probe title\007", "100% done, 7 left\r\n",
                           "from a string argument\r\n", "stderr too\r\n", "still running\r\n"})
    EXPECT_NE(terminal.find(text), std::string::npos) << text << " in " << terminal;
#endif
}

}  // namespace
