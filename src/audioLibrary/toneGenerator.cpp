// toneGenerator
