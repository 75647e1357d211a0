// PlaylistItem
