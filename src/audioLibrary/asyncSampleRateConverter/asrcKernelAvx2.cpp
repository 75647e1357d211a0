#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"
const asrcKernel* asrcKernelAvx2()
{
    return nullptr;
}
