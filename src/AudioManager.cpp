// AudioManager
