// audioBlock
