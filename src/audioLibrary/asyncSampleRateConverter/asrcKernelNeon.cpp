#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"
const asrcKernel* asrcKernelNeon()
{
    return nullptr;
}
