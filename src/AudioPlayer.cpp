// AudioPlayer
