/* `vorx report`: reads a results directory (or trace files) and prints a summary, or with
 * --dump every record with its decoded fields. The vorx program dispatches to it. */
#ifndef VORX_REPORT_H
#define VORX_REPORT_H

#ifdef __cplusplus
extern "C" {
#endif

/* argv[0] is "report". Returns the process exit status. */
int command_report(int argc, char **argv);

#ifdef __cplusplus
}
#endif
#endif
