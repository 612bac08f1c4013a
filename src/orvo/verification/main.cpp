#include "orvo/verification/driver.h"

int main(int argc, char** argv) { return orvo::verification::run_tool(argc, argv); }
