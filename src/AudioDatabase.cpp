// AudioDatabase
