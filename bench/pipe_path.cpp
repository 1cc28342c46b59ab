// The "ffmpeg" command as a filter of raw pictures, the way a program uses it: two pipes and a thread.
#include "compare.h"

#include <cstdio>
#include <fcntl.h>
#include <poll.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace bench
{

namespace
{

bool WriteAll(int fd, const unsigned char* p, std::size_t n)
{
    while (n > 0) {
        const ssize_t nWritten = write(fd, p, n);
        if (nWritten <= 0) {
            return false;
        }
        p += nWritten;
        n -= static_cast<std::size_t>(nWritten);
    }
    return true;
}

bool ReadAll(int fd, unsigned char* p, std::size_t n)
{
    while (n > 0) {
        // Rather a failure than to wait for a picture that another version of the command holds back.
        pollfd st_Poll{fd, POLLIN, 0};
        if (poll(&st_Poll, 1, 10000) <= 0) {
            return false;
        }
        const ssize_t nRead = read(fd, p, n);
        if (nRead <= 0) {
            return false;
        }
        p += nRead;
        n -= static_cast<std::size_t>(nRead);
    }
    return true;
}

class Command
{
  public:
    Command(const Size& size, const std::string& szFilters, std::shared_ptr<Buffer> pIn,
            std::shared_ptr<Buffer> pOut)
        : m_pIn(std::move(pIn)), m_pOut(std::move(pOut))
    {
        int nToChild[2];
        int nFromChild[2];
        if (pipe2(nToChild, O_CLOEXEC) != 0 || pipe2(nFromChild, O_CLOEXEC) != 0) {
            return;
        }
        m_nWrite = nToChild[1];
        m_nRead = nFromChild[0];
        // As large as an ordinary user may make them.
        fcntl(m_nWrite, F_SETPIPE_SZ, 1 << 20);
        fcntl(m_nRead, F_SETPIPE_SZ, 1 << 20);

        // One thread for the encoder: more would hold pictures back, now one and now none.
        std::string szCommand = "exec ffmpeg -hide_banner -loglevel error -nostdin -f rawvideo "
                                "-pix_fmt yuv420p -r 25 -s " +
                                Text(size) + " -i pipe:0 -vf " + szFilters +
                                ",format=yuv420p -fps_mode passthrough -f rawvideo -threads 1 "
                                "-flush_packets 1 pipe:1";
        std::string szShell = "sh";
        std::string szOption = "-c";
        char* pArgv[] = {szShell.data(), szOption.data(), szCommand.data(), nullptr};
        posix_spawn_file_actions_t st_Actions;
        posix_spawn_file_actions_init(&st_Actions);
        posix_spawn_file_actions_adddup2(&st_Actions, nToChild[0], STDIN_FILENO);
        posix_spawn_file_actions_adddup2(&st_Actions, nFromChild[1], STDOUT_FILENO);
        if (posix_spawn(&m_nChild, "/bin/sh", &st_Actions, nullptr, pArgv, environ) != 0) {
            m_nChild = -1;
        }
        posix_spawn_file_actions_destroy(&st_Actions);
        close(nToChild[0]);
        close(nFromChild[1]);
    }
    ~Command()
    {
        // The command ends when it has handed over what it held back.
        close(m_nWrite);
        while (m_nRead >= 0 && read(m_nRead, m_pOut->Data(), m_pOut->Size()) > 0) {
        }
        close(m_nRead);
        if (m_nChild > 0) {
            waitpid(m_nChild, nullptr, 0);
        }
    }
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    bool Run(int n)
    {
        bool bWritten = true;
        std::thread writer([&] {
            for (int i = 0; i < n && bWritten; ++i) {
                bWritten = WriteAll(m_nWrite, m_pIn->Data(), m_pIn->Size());
            }
        });
        bool bRead = m_nChild > 0;
        for (int i = 0; i < n && bRead; ++i) {
            bRead = ReadAll(m_nRead, m_pOut->Data(), m_pOut->Size());
        }
        if (!bRead) {
            close(m_nRead); // the command ends, and with it the writing
            m_nRead = -1;
        }
        writer.join();
        return bRead && bWritten;
    }

  private:
    std::shared_ptr<Buffer> m_pIn;
    std::shared_ptr<Buffer> m_pOut;
    int m_nWrite = -1;
    int m_nRead = -1;
    pid_t m_nChild = -1;
};

} // namespace

Path FfmpegOverPipes(const Size& size, const std::string& szFilters, const Job& job)
{
    auto pCommand = std::make_shared<Command>(size, szFilters, job.pIn, job.pOut);
    return {"pipes", [=](int n) { return pCommand->Run(n); }, BytesOf(job.pOut), true, 8};
}

} // namespace bench
