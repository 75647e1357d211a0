// AutomationAPI
