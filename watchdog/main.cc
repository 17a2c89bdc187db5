#include <cstdio>

int main() {
  std::puts("Usage:\nquillmorWD -f <config file path>");
  return -1;
}
