// asyncSampleRateConverter/asrc
