// Runs a piece of code in a forked child and collects how it ended and what it
// wrote to standard error: assertions end the process, so they are tested in a
// child that they are allowed to end.
#ifndef VORX_TEST_CHILD_HPP
#define VORX_TEST_CHILD_HPP

#include <sys/wait.h>
#include <unistd.h>

#include <string>

struct ChildResult {
    int status = 0;
    std::string err;

    bool exited_with(int code) const { return WIFEXITED(status) && WEXITSTATUS(status) == code; }
    bool killed_by(int signal) const { return WIFSIGNALED(status) && WTERMSIG(status) == signal; }
};

template <typename Body>
ChildResult run_in_child(Body body)
{
    int pipe_fds[2];
    if (pipe(pipe_fds) != 0)
        return {};
    pid_t pid = fork();
    if (pid == 0) {
        close(pipe_fds[0]);
        dup2(pipe_fds[1], STDERR_FILENO);
        body();
        _exit(0);
    }
    close(pipe_fds[1]);
    ChildResult result;
    char chunk[512];
    for (ssize_t got; (got = read(pipe_fds[0], chunk, sizeof(chunk))) > 0;)
        result.err.append(chunk, static_cast<size_t>(got));
    close(pipe_fds[0]);
    waitpid(pid, &result.status, 0);
    return result;
}

#endif // VORX_TEST_CHILD_HPP
