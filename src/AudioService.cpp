// AudioService
