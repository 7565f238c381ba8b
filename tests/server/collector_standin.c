/*
 * A program that talks to the run-tool server the way the collector does,
 * through the real client, without the engine. Started by fake_kel.
 *
 *   collector_standin forks N    the root and N children each ask for a
 *                                configuration, open and close a collection
 *   collector_standin crash      opens a collection and dies of SIGSEGV
 *   collector_standin exit N     opens and closes, then exits with N
 *   collector_standin report     sends an error report of message 78
 *   collector_standin linger     a child keeps its collection open for a
 *                                while after the root has ended
 *   collector_standin orphan     a child keeps its collection open for five
 *                                seconds after the root has ended, its
 *                                output closed so that no reader waits on it
 * Exit status 3 means the conversation itself failed.
 */
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/wait.h>
#include <unistd.h>

#include "vorx_client.h"
#include "vorx_config.h"

static void must(int ok, const char *what)
{
    if (!ok) {
        fprintf(stderr, "collector_standin[%d]: %s failed\n", (int)getpid(), what);
        _exit(3);
    }
}

static void open_collection(void)
{
    must(vorx_init_configuration(getenv("VORX_TEST_SERVER_NAME")) == vorx_er_success, "config");
    const char *dir = g_vorx_conf->data_dir;
    must(dir && dir[0] == '/' && dir[strlen(dir) - 1] == '/', "data_dir");
    must(vorx_client_notify(g_vorx_client, vorx_command_ready) == vorx_er_success, "ready");
}

static void close_collection(void)
{
    must(vorx_client_notify(g_vorx_client, vorx_command_end) == vorx_er_success, "end");
}

/* A forked child is a new process for the server: announced by both sides,
 * then asking for its own configuration. */
static void child_collection(pid_t parent)
{
    must(g_vorx_client->ops->notify_new_process(g_vorx_client, (uint32_t)parent,
                                                (uint32_t)getpid()) == vorx_er_success,
         "new");
    open_collection();
    must(!g_vorx_conf->is_root_process, "child is not the root");
}

static int forks(int n)
{
    open_collection();
    must(g_vorx_conf->is_root_process, "root is the root");
    for (int i = 0; i < n; i++) {
        pid_t pid = fork();
        must(pid >= 0, "fork");
        if (pid == 0) {
            child_collection(getppid());
            close_collection();
            _exit(0);
        }
    }
    int failures = 0, status;
    while (wait(&status) > 0)
        failures += !(WIFEXITED(status) && WEXITSTATUS(status) == 0);
    close_collection();
    return failures ? 3 : 0;
}

static int linger(int milliseconds)
{
    open_collection();
    if (fork() == 0) {
        child_collection(getppid());
        if (milliseconds > 1000) {
            freopen("/dev/null", "w", stdout);
            freopen("/dev/null", "w", stderr);
        }
        usleep((useconds_t)milliseconds * 1000);
        close_collection();
        _exit(0);
    }
    usleep(100 * 1000); /* let the child open its collection */
    close_collection();
    return 0;
}

int main(int argc, char **argv)
{
    const char *mode = argc > 1 ? argv[1] : "";
    int number = argc > 2 ? atoi(argv[2]) : 0;
    if (strcmp(mode, "forks") == 0)
        return forks(number);
    if (strcmp(mode, "linger") == 0)
        return linger(600);
    if (strcmp(mode, "orphan") == 0)
        return linger(5000);
    open_collection();
    if (strcmp(mode, "crash") == 0)
        raise(SIGSEGV);
    if (strcmp(mode, "report") == 0)
        vorx_client_report(g_vorx_client, vorx_severity_error,
                           "<?xml ?><msg name='78'><arg name='symbol' value='%s' /></msg>", "poll");
    close_collection();
    return strcmp(mode, "exit") == 0 ? number : 0;
}
