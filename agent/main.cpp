// porvane: one pass of the log-upload agent. The start-up sequence arrives
// with the command line and the upload run; until then the program does
// nothing and reports that the run did not happen.
int main() { return 1; }
