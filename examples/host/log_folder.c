/* A host written in C asks where to write its logs: prints the default log
 * folder and exits 0, or prints the status and exits 1.
 *
 * The buffer form answers 7 with the size it needs when the buffer is too
 * small, so one call with a guess and at most one more call suffice. */
#include <porvane/DefaultLogFolder.h>

#include <stdio.h>
#include <stdlib.h>

int main(void) {
  unsigned int size = 64;
  char* folder = malloc(size);
  int status = folder != NULL ? GetDefaultLogFolder(folder, &size) : -1;
  if (status == PORVANE_BUFFER_TOO_SMALL) {
    char* larger = realloc(folder, size);
    status = larger != NULL ? GetDefaultLogFolder(larger, &size) : -1;
    folder = larger != NULL ? larger : folder;
  }
  if (status != 0) {
    fprintf(stderr, "log_folder: status %d\n", status);
    free(folder);
    return 1;
  }
  printf("%s\n", folder);
  free(folder);
  return 0;
}
