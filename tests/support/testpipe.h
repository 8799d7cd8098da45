// A pipe that closes whatever ends are still open when the test is done.
#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <gtest/gtest.h>

class Pipe {
public:
    Pipe() { EXPECT_EQ(pipe(fd_), 0); }
    ~Pipe()
    {
        close_rd();
        close_wr();
    }
    Pipe(const Pipe&) = delete;
    Pipe& operator=(const Pipe&) = delete;

    int rd() const { return fd_[0]; }
    int wr() const { return fd_[1]; }
    // Closing an end forgets it, so the destructor never closes a number
    // that has been handed out again meanwhile.
    void close_rd()
    {
        if (fd_[0] >= 0)
            close(fd_[0]);
        fd_[0] = -1;
    }
    void close_wr()
    {
        if (fd_[1] >= 0)
            close(fd_[1]);
        fd_[1] = -1;
    }
    // Fills the pipe to the brim, then makes the writing side blocking again.
    void fill()
    {
        EXPECT_EQ(fcntl(fd_[1], F_SETFL, O_NONBLOCK), 0);
        char junk[4096] = {};
        while (write(fd_[1], junk, sizeof(junk)) > 0) {
        }
        EXPECT_EQ(fcntl(fd_[1], F_SETFL, 0), 0);
    }

private:
    int fd_[2] = {-1, -1};
};
