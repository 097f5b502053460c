/* A host that uses the DLL the way a legacy program does: loads it by name at
 * run time and looks every function up by its plain name.
 *   dll_host DLL NAMES-FILE
 * NAMES-FILE holds one exported name a line. Exit status 0 when every name
 * is found and a sum computed through the looked-up functions is right. */
#include <stdio.h>
#include <string.h>
#include <windows.h>

#include "zbshr/decimal.h"

typedef SHDEC *(ZBSHR_CALL *ASCII_TO_DEC)(SHDEC *, const char *);
typedef char *(ZBSHR_CALL *DEC_TO_ASCII)(char *, const SHDEC *);
typedef SHDEC *(ZBSHR_CALL *ADD_DEC)(SHDEC *, const SHDEC *, const SHDEC *);

int main(int argc, char **argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: dll_host DLL NAMES-FILE\n");
    return 2;
  }
  HMODULE dll = LoadLibraryA(argv[1]);
  if (!dll) {
    fprintf(stderr, "cannot load %s (error %lu)\n", argv[1], (unsigned long)GetLastError());
    return 1;
  }
  FILE *names = fopen(argv[2], "r");
  if (!names) {
    fprintf(stderr, "cannot read %s\n", argv[2]);
    return 2;
  }
  char line[256];
  int checked = 0, missing = 0;
  while (fgets(line, sizeof line, names)) {
    line[strcspn(line, "\r\n")] = '\0';
    if (!line[0]) continue;
    ++checked;
    if (!GetProcAddress(dll, line)) {
      printf("missing: %s\n", line);
      ++missing;
    }
  }
  fclose(names);

  ASCII_TO_DEC from_text = (ASCII_TO_DEC)(void *)GetProcAddress(dll, "ConvAsciiToDecimal");
  DEC_TO_ASCII to_text = (DEC_TO_ASCII)(void *)GetProcAddress(dll, "ConvDecimalToAscii");
  ADD_DEC add = (ADD_DEC)(void *)GetProcAddress(dll, "AddDecimal");
  char text[64] = "";
  if (from_text && to_text && add) {
    SHDEC a, b, sum;
    from_text(&a, "1.5");
    from_text(&b, "2.25");
    add(&sum, &a, &b);
    to_text(text, &sum);
  }
  printf("%d names looked up, %d missing; 1.5 + 2.25 = %s\n", checked, missing, text);
  FreeLibrary(dll);
  return missing == 0 && strcmp(text, "3.75") == 0 ? 0 : 1;
}
