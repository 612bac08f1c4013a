#include "orvo/verification/tool.h"

int main(int argc, char** argv) { return orvo::verification::run_tool(argc, argv); }
