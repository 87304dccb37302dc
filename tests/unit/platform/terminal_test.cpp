#include "zarnel/terminal.h"

#include "base/owned.hpp"

#include <fcntl.h>
#include <pty.h>
#include <termios.h>

#include <gtest/gtest.h>

namespace {

class Terminal : public ::testing::Test {
  protected:
    void SetUp() override
    {
        int master;
        int slave;
        ASSERT_EQ(openpty(&master, &slave, nullptr, nullptr, nullptr), 0);
        master_.reset(master);
        slave_.reset(slave);
    }

    struct termios settings()
    {
        struct termios found = {};
        EXPECT_EQ(tcgetattr(slave_.get(), &found), 0);
        return found;
    }

    znc::UniqueFd master_;
    znc::UniqueFd slave_;
};

TEST_F(Terminal, EchoIsReadAndSet)
{
    int options = 0;
    ASSERT_EQ(znTermOptionsGet(slave_.get(), &options), OK);
    EXPECT_EQ(options, ZN_TERM_OPT_ECHO);
    ASSERT_EQ(znTermOptionsSet(slave_.get(), 0), OK);
    EXPECT_EQ(settings().c_lflag & ECHO, 0u);
    ASSERT_EQ(znTermOptionsGet(slave_.get(), &options), OK);
    EXPECT_EQ(options, 0);
    ASSERT_EQ(znTermOptionsSet(slave_.get(), ZN_TERM_OPT_ECHO), OK);
    EXPECT_NE(settings().c_lflag & ECHO, 0u);
}

TEST_F(Terminal, EveryOtherSettingStaysAsItIs)
{
    struct termios before = settings();
    before.c_lflag &= ~static_cast<tcflag_t>(ISIG);
    before.c_iflag |= INLCR;
    before.c_cc[VERASE] = 'x';
    ASSERT_EQ(tcsetattr(slave_.get(), TCSANOW, &before), 0);
    ASSERT_EQ(znTermOptionsSet(slave_.get(), ~ZN_TERM_OPT_ECHO), OK);
    const struct termios after = settings();
    EXPECT_EQ(after.c_iflag, before.c_iflag);
    EXPECT_EQ(after.c_oflag, before.c_oflag);
    EXPECT_EQ(after.c_cflag, before.c_cflag);
    EXPECT_EQ(after.c_lflag, before.c_lflag & ~static_cast<tcflag_t>(ECHO));
    EXPECT_TRUE(std::equal(std::begin(after.c_cc), std::end(after.c_cc), before.c_cc));
}

TEST_F(Terminal, WhatIsNoTerminalFailsWithENOTTY)
{
    const znc::UniqueFd null(open("/dev/null", O_RDWR | O_CLOEXEC));
    int options = 0;
    errno = 0;
    EXPECT_EQ(znTermOptionsGet(null.get(), &options), ERROR);
    EXPECT_EQ(errno, ENOTTY);
    errno = 0;
    EXPECT_EQ(znTermOptionsSet(null.get(), 0), ERROR);
    EXPECT_EQ(errno, ENOTTY);
}

} // namespace
