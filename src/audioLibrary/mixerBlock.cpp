// mixerBlock
