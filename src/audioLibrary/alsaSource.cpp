// alsaSource
