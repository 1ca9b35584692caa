#include "mex.h"
void mexFunction(int, mxArray*[], int, const mxArray*[]) {}
