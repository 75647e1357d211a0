// serviceTime
