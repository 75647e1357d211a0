// mixerCopy
