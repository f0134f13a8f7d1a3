#include "ReplException.h"

#include <cstring>

const char* ReplException::errnoText(int error) {
  // strerror may format unknown numbers into a shared buffer; strerrordesc_np reads the C library's
  // constant error list only.
  const char* text = strerrordesc_np(error);
  return text ? text : "Unknown error";
}
