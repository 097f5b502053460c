// A program outside the tree that uses the installed library, as users would.
#include <zbshr/zbshr.h>
#include <stdio.h>
#include <string.h>
int main(void) {
  ZBSTG_HEAP heap = zbstg_begin(0);
  char *text = zbstg_strdup(heap, "hello", 0);
  SHDEC a, b, c; char out[SHDEC_TEXT_SIZE];
  ConvAsciiToDecimal(&a, "1.5"); ConvAsciiToDecimal(&b, "2.25");
  AddDecimal(&c, &a, &b);
  printf("%s %s\n", text, ConvDecimalToAscii(out, &c));
  zbstg_free_pool(heap, 0);
  zbstg_end(heap);
  /* The headers and the library must be the same version. */
  char want[32];
  snprintf(want, sizeof want, "%d.%d.%d", ZBSHR_VERSION_MAJOR, ZBSHR_VERSION_MINOR,
           ZBSHR_VERSION_PATCH);
  if (strcmp(want, zbshr_version()) != 0) {
    fprintf(stderr, "headers say %s, the library says %s\n", want, zbshr_version());
    return 1;
  }
  return strcmp(out, "3.75") == 0 ? 0 : 1;
}
