// sampleRateConverter
