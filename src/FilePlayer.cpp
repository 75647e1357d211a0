// FilePlayer
