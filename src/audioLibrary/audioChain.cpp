// audioChain
