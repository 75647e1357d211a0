// PlaylistType
