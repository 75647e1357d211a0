// StreamPlayer
