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
  return 0;
}
