// Playlist
