#include "rivals.h"

extern "C" {
#include <libavutil/pixdesc.h>
}

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
        // Rather a failure than to wait for what another version of the command holds back.
        pollfd st_Poll{fd, POLLIN, 0};
        const ssize_t nRead = poll(&st_Poll, 1, 60000) > 0 ? read(fd, p, n) : 0;
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
    // The command's inputs are the descriptors from 3 on. nAhead jobs are written that are never waited for: what
    // the command holds back.
    Command(std::string szCommand, std::size_t nInputs, int nAhead, std::shared_ptr<Buffer> pIn,
            std::shared_ptr<Buffer> pOut)
        : m_pIn(std::move(pIn)), m_pOut(std::move(pOut))
    {
        posix_spawn_file_actions_t st_Actions;
        posix_spawn_file_actions_init(&st_Actions);
        int nFds[2];
        // 1 MiB: as large as an ordinary user may make them. Above the numbers that the command knows them by.
        const auto open = [&] {
            jobs::Demand(pipe2(nFds, O_CLOEXEC) == 0 && fcntl(nFds[0], F_SETPIPE_SZ, 1 << 20) > 0, "pipe");
            for (int& fd : nFds) {
                const int nHigh = fcntl(fd, F_DUPFD_CLOEXEC, 64);
                close(fd);
                fd = nHigh;
            }
        };
        std::vector<int> vec_Children;
        for (std::size_t i = 0; i < nInputs; ++i) {
            open();
            m_vecWrite.push_back(nFds[1]);
            vec_Children.push_back(nFds[0]);
            posix_spawn_file_actions_adddup2(&st_Actions, nFds[0], static_cast<int>(3 + i));
        }
        open();
        m_nRead = nFds[0];
        vec_Children.push_back(nFds[1]);
        posix_spawn_file_actions_adddup2(&st_Actions, nFds[1], STDOUT_FILENO);
        szCommand.insert(0, "exec ffmpeg -hide_banner -loglevel error -nostdin ");
        std::string szShell = "sh";
        std::string szOption = "-c";
        char* pArgv[] = {szShell.data(), szOption.data(), szCommand.data(), nullptr};
        jobs::Demand(posix_spawn(&m_nChild, "/bin/sh", &st_Actions, nullptr, pArgv, environ) == 0, "sh");
        posix_spawn_file_actions_destroy(&st_Actions);
        for (const int fd : vec_Children) {
            close(fd);
        }
        jobs::Demand(Write(nAhead), "ffmpeg");
    }
    ~Command()
    {
        // The command ends when it has handed over what it held back.
        for (const int fd : m_vecWrite) {
            close(fd);
        }
        while (m_nRead >= 0 && read(m_nRead, m_pOut->Data(), m_pOut->Size()) > 0) {
        }
        close(m_nRead);
        waitpid(m_nChild, nullptr, 0);
    }
    Command(const Command&) = delete;
    Command& operator=(const Command&) = delete;

    bool Run(int n)
    {
        bool bWritten = false;
        std::thread writer([&] { bWritten = Write(n); });
        bool bRead = true;
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
    bool Write(int n)
    {
        bool bOk = true;
        for (int i = 0; i < n; ++i) {
            for (const int fd : m_vecWrite) {
                bOk = bOk && WriteAll(fd, m_pIn->Data(), m_pIn->Size());
            }
        }
        return bOk;
    }

    std::shared_ptr<Buffer> m_pIn;
    std::shared_ptr<Buffer> m_pOut;
    std::vector<int> m_vecWrite;
    int m_nRead = -1;
    pid_t m_nChild = -1;
};

Path PathOf(const std::string& szCommand, std::size_t nInputs, int nAhead,
            const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    auto pCommand = std::make_shared<Command>(szCommand, nInputs, nAhead, pIn, pOut);
    return {"pipes", [=](int n) { return pCommand->Run(n); }, true, nAhead > 0 ? 64 : 8};
}

std::string RawPictures(AVPixelFormat format, jobs::Size size)
{
    return std::string("-f rawvideo -r 25 -pix_fmt ") + av_get_pix_fmt_name(format) + " -s " +
           std::to_string(size.nWidth) + "x" + std::to_string(size.nHeight);
}

// One thread for the encoder: more would hold pictures back, now one and now none.
constexpr const char* kPicturesOut =
    " -fps_mode passthrough -f rawvideo -threads 1 -flush_packets 1 pipe:1";

} // namespace

Path Pipes(const Task& task, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    std::string szCommand;
    std::string szDescr = task.bMix ? "" : "[0:v]";
    for (std::size_t i = 0; i < task.Inputs(); ++i) {
        szCommand += task.bAudio ? "-probesize 32 -analyzeduration 0 -f s16le -ar 48000 -ac 2"
                                 : RawPictures(task.format, task.size);
        szCommand += " -i /dev/fd/" + std::to_string(3 + i) + " ";
        if (task.bMix) {
            szDescr.append("[").append(std::to_string(i)).append(task.bAudio ? ":a]" : ":v]");
        }
    }
    szDescr += task.szDescr.substr(task.bMix ? 3 * task.Inputs() : 4);
    szCommand += "-filter_complex '" + szDescr + "' -map '[out]'";
    szCommand += task.bAudio ? " -f s16le -flush_packets 1 pipe:1" : kPicturesOut;
    return PathOf(szCommand, task.Inputs(), task.bAudio ? 8 : 0, pIn, pOut);
}

Path Pipes(const Conversion& c, const std::shared_ptr<Buffer>& pIn, const std::shared_ptr<Buffer>& pOut)
{
    const std::string szDescr = "scale=" + std::to_string(c.dst.nWidth) + ":" +
                                std::to_string(c.dst.nHeight) +
                                ":flags=bilinear,format=" + av_get_pix_fmt_name(c.dstFormat);
    Path path = PathOf(RawPictures(c.srcFormat, c.src) + " -i /dev/fd/3 -vf " + szDescr + kPicturesOut, 1,
                       0, pIn, pOut);
    path.bSameResult = false; // the command's scaler fills its rows otherwise
    return path;
}

} // namespace bench
