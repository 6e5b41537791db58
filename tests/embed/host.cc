#include "quarvel/Version.h"

int main() { return 0; }
