// ItemType
