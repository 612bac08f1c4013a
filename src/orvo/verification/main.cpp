// The tool as it runs from its build tree.
#include "orvo/verification/tool.h"

int main(int argc, char** argv) {
  return orvo::verification::run_tool(argc, argv, {ORVO_SOURCE_DIR, ORVO_DEFAULT_OUTPUT_ROOT});
}
