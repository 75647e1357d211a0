#include "audioLibrary/asyncSampleRateConverter/asrcKernels.h"
const asrcKernel* asrcKernelSse2()
{
    return nullptr;
}
